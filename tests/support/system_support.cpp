#include "system_support.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace tessarel::test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "tessarel-test-XXXXXX").string();
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  // Folders a test made read-only must become writable again to be removed.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec))
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ec);
  }
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void write_file(const std::string& path, const Bytes& content) {
  write_file(path, std::string(content.begin(), content.end()));
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return std::move(out).str();
}

Bytes read_bytes(const std::string& path) {
  std::string s = read_file(path);
  return Bytes(s.begin(), s.end());
}

namespace {
std::string drain(int fd) {
  std::string out;
  char buf[65536];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0)
    out.append(buf, static_cast<std::size_t>(n));
  return out;
}
}  // namespace

CommandResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&fa, out_pipe[1], 1);
  posix_spawn_file_actions_adddup2(&fa, err_pipe[1], 2);
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> env_strings;
  for (char** e = environ; *e; ++e)
    env_strings.emplace_back(*e);
  // Programs under test never open windows on the desktop of whoever runs the tests; a
  // test that wants a display passes it in env.
  std::erase_if(env_strings, [](const std::string& s) {
    return s.rfind("DISPLAY=", 0) == 0 || s.rfind("WAYLAND_DISPLAY=", 0) == 0;
  });
  for (const auto& e : env) {
    auto key = e.substr(0, e.find('=') + 1);
    std::erase_if(env_strings, [&](const std::string& s) { return s.rfind(key, 0) == 0; });
    env_strings.push_back(e);
  }
  std::vector<char*> envp;
  for (auto& e : env_strings)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid;
  int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  CommandResult r;
  if (rc != 0) {
    ::close(out_pipe[0]);
    ::close(err_pipe[0]);
    r.err = "cannot start " + argv[0];
    return r;
  }
  std::string err;
  std::thread t([&] { err = drain(err_pipe[0]); });
  r.out = drain(out_pipe[0]);
  t.join();
  ::close(out_pipe[0]);
  ::close(err_pipe[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  r.err = err;
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}

CommandResult run_shell(const std::string& command) {
  return run({"/bin/sh", "-c", command});
}

int with_file_size_limit(std::size_t limit, const std::function<int()>& fn) {
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit lim{limit, limit};
    setrlimit(RLIMIT_FSIZE, &lim);
    int rc = 99;
    try {
      rc = fn();
    } catch (...) {
      rc = 98;
    }
    _exit(rc);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

SmallFileSystem::SmallFileSystem(const std::string& folder, std::size_t bytes) : folder_(folder) {
  std::filesystem::create_directories(folder);
  std::string options = "size=" + std::to_string(bytes) + ",mode=0700";
  mounted_ =
      ::mount("tessarel-test", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
}

SmallFileSystem::~SmallFileSystem() {
  if (mounted_) ::umount2(folder_.c_str(), MNT_DETACH);
}

bool SmallFileSystem::make_read_only() {
  return mounted_ && ::mount("tessarel-test", folder_.c_str(), "tmpfs",
                             MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr) == 0;
}

std::string SmallFileSystem::fill() {
  std::string path = folder_ + "/filler";
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  std::string block(4096, 'f');
  // Whole blocks, then single bytes: the last partial block is used up too.
  while (::write(fd, block.data(), block.size()) > 0) {
  }
  while (::write(fd, "f", 1) > 0) {
  }
  ::close(fd);
  return path;
}

std::string read_terminal(int master, int quiet_ms) {
  std::string out;
  char buf[8192];
  pollfd p{master, POLLIN, 0};
  while (poll(&p, 1, quiet_ms) > 0) {
    ssize_t n = ::read(master, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
  }
  return out;
}

bool have_program(const std::string& name) {
  return run_shell("command -v " + name + " >/dev/null 2>&1").exit_code == 0;
}

PtyRun on_terminal(const std::vector<std::string>& args, const std::string& wait_for,
                   const std::string& keys) {
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    // The terminal is under test, not the desktop dialogs.
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    std::vector<char*> argv;
    for (const auto& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  PtyRun r;
  bool typed = false;
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  char buf[4096];
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{master, POLLIN, 0};
    if (poll(&p, 1, 100) > 0) {
      ssize_t n = ::read(master, buf, sizeof buf);
      if (n <= 0) {  // the terminal closed: the program has ended
        int status = 0;
        waitpid(pid, &status, 0);
        r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        break;
      }
      r.screen.append(buf, static_cast<std::size_t>(n));
    }
    if (!typed && r.screen.find(wait_for) != std::string::npos) {
      (void)!::write(master, keys.data(), keys.size());
      typed = true;
    }
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      while (poll(&p, 1, 50) > 0) {
        ssize_t n = ::read(master, buf, sizeof buf);
        if (n <= 0) break;
        r.screen.append(buf, static_cast<std::size_t>(n));
      }
      r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
  }
  ::close(master);
  if (r.exit_code < 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  return r;
}

}  // namespace tessarel::test

// The sanitizer build's leak check: allocations that system libraries loaded by the Qt tests
// keep until the process ends (fontconfig's and D-Bus's caches). Nothing of ours is listed.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libdbus-1.so\n";
}
