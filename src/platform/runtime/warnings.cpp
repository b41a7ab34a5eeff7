#include "platform/runtime/warnings.h"

#include <cstdio>
#include <functional>
#include <mutex>

#include "tessarel/store.h"

namespace tessarel {

namespace {
std::mutex& handler_mutex() {
  static std::mutex m;
  return m;
}
std::function<void(const std::string&)>& handler() {
  static std::function<void(const std::string&)> h;
  return h;
}
}  // namespace

void set_warning_handler(std::function<void(const std::string&)> h) {
  std::lock_guard lock(handler_mutex());
  handler() = std::move(h);
}

void warn(const std::string& message) {
  std::function<void(const std::string&)> h;
  {
    std::lock_guard lock(handler_mutex());
    h = handler();
  }
  if (h) {
    h(message);
  } else {
    std::fprintf(stderr, "tessarel: warning: %s\n", message.c_str());
  }
}

}  // namespace tessarel
