// Umbrella header: the whole public API of libtessarel.
#ifndef TESSAREL_TESSAREL_H
#define TESSAREL_TESSAREL_H

#include "tessarel/archive.h"
#include "tessarel/certgen.h"
#include "tessarel/certificate.h"
#include "tessarel/dataset.h"
#include "tessarel/dialogs.h"
#include "tessarel/errors.h"
#include "tessarel/export.h"
#include "tessarel/exports.h"
#include "tessarel/pdf.h"
#include "tessarel/picker.h"
#include "tessarel/sign_e_archivia.h"
#include "tessarel/signing.h"
#include "tessarel/store.h"
#include "tessarel/trust.h"
#include "tessarel/types.h"
#include "tessarel/ui.h"
#include "tessarel/version.h"
#include "tessarel/wizard.h"

#endif
