#include "tests/support/posix_child_process.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace zu_test {
namespace {

// "<role> <out fd> <stop fd> <argument>" in the environment of a child started by role.
const char kChildVariable[] = "ZU_TEST_CHILD";

}  // namespace

ChildProcess::ChildProcess(const std::function<void()>& setup,
                           const std::function<void(ChildPipes)>& body) {
  Start(setup, body, "", "");
}

ChildProcess::ChildProcess(const std::string& role, const std::string& argument,
                           const std::function<void()>& setup) {
  Start(setup, nullptr, role, argument);
}

void ChildProcess::Start(const std::function<void()>& setup,
                         const std::function<void(ChildPipes)>& body, const std::string& role,
                         const std::string& argument) {
  int out[2], stop[2];
  if (pipe(out) != 0 || pipe(stop) != 0) std::abort();
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  std::fflush(stdout);  // or the child would print what the test had buffered
  std::fflush(stderr);
  pid_ = fork();
  if (pid_ < 0) std::abort();
  if (pid_ == 0) {
    close(out[0]);
    close(stop[1]);
    if (setup) setup();
    if (role.empty()) {
      body({out[1], stop[0]});
      _exit(0);
    }
    const std::string setting =
        role + " " + std::to_string(out[1]) + " " + std::to_string(stop[0]) + " " + argument;
    setenv(kChildVariable, setting.c_str(), 1);
    execl(self.c_str(), self.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  close(stop[0]);
  out_ = out[0];
  stop_ = stop[1];
}

bool ChildProcess::Receive(void* data, size_t size) {
  auto* into = static_cast<char*>(data);
  size_t got = 0;
  for (ssize_t n; got < size && (n = read(out_, into + got, size - got)) > 0;) {
    got += static_cast<size_t>(n);
  }
  return got == size;
}

void ChildProcess::Stop() {
  if (stop_ >= 0) close(stop_);
  stop_ = -1;
}

int ChildProcess::Finish() {
  if (pid_ < 0) return code_;
  Stop();
  close(out_);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return code_;
}

bool RunIfChild(const char* role, void (*body)(ChildPipes pipes, const std::string& argument)) {
  const char* setting = std::getenv(kChildVariable);
  const size_t length = std::strlen(role);
  if (setting == nullptr || std::strncmp(setting, role, length) != 0 || setting[length] != ' ') {
    return false;
  }
  ChildPipes pipes;
  int consumed = 0;
  if (std::sscanf(setting + length, " %d %d %n", &pipes.out, &pipes.stop, &consumed) != 2) {
    std::_Exit(126);
  }
  body(pipes, setting + length + consumed);
  std::_Exit(0);
}

}  // namespace zu_test
