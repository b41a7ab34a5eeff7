// tessarel token list: PKCS#11 modules, their slots and tokens.
#include "cli.h"
#include "tessarel/tessarel.h"

namespace tessarel::cli {
namespace {

std::string flags_text(const TokenSlotInfo& s) {
  std::string out;
  auto add = [&](bool on, const char* text) {
    if (on) out += std::string(out.empty() ? "" : ", ") + text;
  };
  add(!s.token_initialized, "not initialised");
  add(s.login_required, "login required");
  add(s.pin_pad, "PIN pad");
  add(s.token_initialized && !s.pin_initialized, "no user PIN");
  add(s.pin_count_low, "PIN count low");
  add(s.pin_final_try, "PIN final try");
  add(s.pin_locked, "PIN LOCKED");
  add(s.write_protected, "read-only");
  return out;
}

void list(const std::string& module) {
  std::string uri = "pkcs11:";
  if (!module.empty())
    uri = "pkcs11:?module-path=" + module;
  else if (store_location().rfind("pkcs11:", 0) == 0)
    uri = store_location();
  auto modules = list_tokens(uri);
  if (json()) {
    std::printf("[");
    for (std::size_t i = 0; i < modules.size(); ++i) {
      const auto& m = modules[i];
      std::printf(
          "%s\n  {\"module\": %s, \"path\": %s, \"description\": %s, \"manufacturer\": %s, "
          "\"version\": %s, \"error\": %s, \"slots\": [",
          i ? "," : "", json_string(m.name).c_str(), json_string(m.path).c_str(),
          json_string(m.description).c_str(), json_string(m.manufacturer).c_str(),
          json_string(m.version).c_str(), m.error.empty() ? "null" : json_string(m.error).c_str());
      for (std::size_t k = 0; k < m.slot_list.size(); ++k) {
        const auto& s = m.slot_list[k];
        std::printf("%s\n    {\"slot\": %lu, \"description\": %s, \"token_present\": %s",
                    k ? "," : "", s.slot_id, json_string(s.slot_description).c_str(),
                    s.token_present ? "true" : "false");
        if (s.token_present)
          std::printf(
              ", \"label\": %s, \"serial\": %s, \"manufacturer\": %s, \"model\": %s, "
              "\"initialized\": %s, \"login_required\": %s, \"pin_pad\": %s, "
              "\"pin_count_low\": %s, \"pin_final_try\": %s, \"pin_locked\": %s, "
              "\"uri\": %s",
              json_string(s.label).c_str(), json_string(s.serial).c_str(),
              json_string(s.manufacturer).c_str(), json_string(s.model).c_str(),
              s.token_initialized ? "true" : "false", s.login_required ? "true" : "false",
              s.pin_pad ? "true" : "false", s.pin_count_low ? "true" : "false",
              s.pin_final_try ? "true" : "false", s.pin_locked ? "true" : "false",
              json_string(s.uri).c_str());
        std::printf("}");
      }
      std::printf("]}");
    }
    std::printf("\n]\n");
    return;
  }
  for (const auto& m : modules) {
    std::printf("module %s (%s)\n", m.name.c_str(), m.path.c_str());
    if (!m.error.empty()) {
      std::printf("  not usable: %s\n", m.error.c_str());
      continue;
    }
    std::printf("  %s, %s, version %s\n", m.description.c_str(), m.manufacturer.c_str(),
                m.version.c_str());
    if (m.slot_list.empty()) std::printf("  no slots\n");
    for (const auto& s : m.slot_list) {
      std::printf("  slot %lu: %s\n", s.slot_id, s.slot_description.c_str());
      if (!s.token_present) {
        std::printf("    no token\n");
        continue;
      }
      std::string flags = flags_text(s);
      std::printf("    token \"%s\", serial %s, %s %s%s\n", s.label.c_str(), s.serial.c_str(),
                  s.manufacturer.c_str(), s.model.c_str(),
                  flags.empty() ? "" : (" [" + flags + "]").c_str());
      if (s.token_initialized) std::printf("    %s\n", s.uri.c_str());
    }
  }
  if (modules.empty()) info("no PKCS#11 modules configured (see p11-kit's pkcs11.conf)");
}

CommandRegistration reg(70, [](CLI::App& app) {
  auto* token = app.add_subcommand("token", "PKCS#11 smart cards, USB tokens and HSMs");
  token->require_subcommand(1);
  static std::string module;
  auto* l = token->add_subcommand(
      "list", "List PKCS#11 modules (from p11-kit's configuration), their slots and tokens");
  l->add_option("--module", module, "Only this module (path of its shared library)");
  l->add_flag("--json", globals().json, "Output as JSON");
  on_run(l, [] { list(module); });
});

}  // namespace
}  // namespace tessarel::cli
