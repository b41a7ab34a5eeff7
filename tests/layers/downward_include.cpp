// Must compile: the cms layer may use the layers below it.
#include "cms/cms.h"
#include "platform/asn1/ber.h"
#include "platform/crypto/digest.h"
#include "platform/runtime/files.h"
