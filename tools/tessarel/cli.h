// Shared pieces of the tessarel command line: the command registry, global options,
// password sources, output helpers and the demo's step registry.
//
// Every subcommand lives in its own file and registers itself with a static
// CommandRegistration; the order number decides where it appears in --help.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tessarel/types.h"

namespace tessarel::cli {

struct Globals {
  std::string store;   // --store
  std::string pin;     // --pin (a source, never the PIN itself)
  std::string ui;      // --ui
  bool json = false;   // --json
  bool quiet = false;  // --quiet
  // Answers given on the command line for questions the library would ask.
  int overwrite_answer = -1;  // item of the overwrite question, -1 to ask
  std::string deletion_type;  // record to delete, when given
  std::string deletion_id;
  bool assume_yes = false;   // confirmations answered OK
  std::string current_file;  // the file being archived, for messages about it
};
Globals& globals();

using Registrar = std::function<void(CLI::App& app)>;
struct CommandRegistration {
  CommandRegistration(int order, Registrar registrar);
};
// The action of a (sub)command: run after the whole command line has been parsed and the
// global options (store, user interface) are in effect.
void on_run(CLI::App* command, std::function<void()> action);

// Exit status for the run: 0 success, 1 failure, 2 usage error. Commands raise it with fail().
void set_exit_code(int code);
int exit_code();

// Messages for people go to stderr ("tessarel: ..."); data goes to stdout.
void info(const std::string& message);   // suppressed by --quiet
void error(const std::string& message);  // always shown; sets exit code 1

// A password from a source: "env:VAR", "file:PATH" (first line), "fd:N" (first line), or
// "pass:" for the empty password (a non-empty one on the command line is refused). Without
// a source the password is asked through the user interface; nullopt when the user
// cancels. Throws tessarel::Exception for a malformed or unreadable source.
std::optional<std::string> read_password(const std::string& source, const std::string& purpose);

// The file a password or PIN source reads (file:PATH, or what the descriptor of fd:N is
// open on), so that no output is written over it; "" for the other sources.
std::string source_file(const std::string& source);

// Validates a password source on the command line (a malformed one is a usage error).
CLI::Validator password_source();
// The same for a PIN source: env:, file: or fd: (there is no empty PIN to write as pass:).
CLI::Validator pin_source();
// Hands the library the PIN from source whenever a token asks for it. The PIN is read once
// (a descriptor can only be read once) and wiped by forget_pin().
void use_pin_source(const std::string& source);
void forget_pin();

// The whole of a small file the user named (a PFX); nullopt when it cannot be opened.
std::optional<Bytes> read_whole_file(const std::string& path);

// JSON text helpers for --json output.
std::string json_string(const std::string& s);

// "--json" given on the command line or on the subcommand.
bool json();

// The demo runs as a sequence of steps; each feature contributes its own.
struct DemoContext {
  std::string dir;                            // the demo folder (created)
  std::string store;                          // its private certificate store
  std::map<std::string, std::string> values;  // what steps hand to later steps
  std::vector<std::string> checks;            // commands a person can run to check the result
};
struct DemoStep {
  DemoStep(int order, std::string title, std::function<void(DemoContext&)> run);
};
void run_demo(DemoContext& ctx);

}  // namespace tessarel::cli
