// What the tests need from the system, with no part of the library: temporary folders,
// files, outside programs, pseudo-terminals, small file systems. The Qt tests, which link
// the shared library rather than the static one, use it too.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tessarel/types.h"

namespace tessarel::test {

// A fresh folder under the temporary folder, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

void write_file(const std::string& path, const std::string& content);
void write_file(const std::string& path, const Bytes& content);
std::string read_file(const std::string& path);
Bytes read_bytes(const std::string& path);

struct CommandResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};
// Runs a program (no shell) with stdin from /dev/null; captures stdout and stderr.
CommandResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
// Runs a shell command line.
CommandResult run_shell(const std::string& command);
// Runs fn in a child process whose files may not grow past limit bytes (a full disk,
// as the process sees it); returns the child's exit code, or 128 + signal.
int with_file_size_limit(std::size_t limit, const std::function<int()>& fn);

// A real, small file system (tmpfs) mounted at a folder for the life of the object, so a
// test can run out of space for real. Mounting needs root; mounted() says whether it worked.
class SmallFileSystem {
 public:
  SmallFileSystem(const std::string& folder, std::size_t bytes);
  ~SmallFileSystem();
  SmallFileSystem(const SmallFileSystem&) = delete;
  SmallFileSystem& operator=(const SmallFileSystem&) = delete;
  bool mounted() const { return mounted_; }
  // Writes a filler file below the folder until the file system is full; returns its path.
  std::string fill();
  // Remounts the file system read-only: nothing below it can be created, changed or deleted.
  bool make_read_only();

 private:
  std::string folder_;
  bool mounted_ = false;
};

// Everything a pseudo-terminal's other side shows within wait (stops once it is quiet).
std::string read_terminal(int master, int quiet_ms = 200);

struct PtyRun {
  int exit_code = -1;
  std::string screen;
};
// Runs a program on a new pseudo-terminal, typing keys once the prompt containing
// `wait_for` is on the screen.
PtyRun on_terminal(const std::vector<std::string>& args, const std::string& wait_for,
                   const std::string& keys);

// True when the program is on PATH.
bool have_program(const std::string& name);

}  // namespace tessarel::test
