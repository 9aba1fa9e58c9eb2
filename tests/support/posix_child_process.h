// The one way a test runs code in another process and hears back from it (POSIX only).
//
// A child is either forked from the test (it shares the test's memory as it was at the fork
// and runs `body`), or a fresh copy of this program started under a role name (it inherits
// nothing of the test: no descriptors, locks, limits raised by the library or settings; it
// runs the function registered for the role before any test, see RunIfChild). Either way it
// gets two descriptors: `out`, on which it sends its figures to the test, and `stop`, which
// reads end-of-file once the test calls Stop(). A crash of the child is seen by Finish().
#ifndef ZU_TESTS_SUPPORT_POSIX_CHILD_PROCESS_H_
#define ZU_TESTS_SUPPORT_POSIX_CHILD_PROCESS_H_

#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

namespace zu_test {

struct ChildPipes {
  int out = -1;   // the child writes here
  int stop = -1;  // reads end-of-file once the test called Stop()
};

class ChildProcess {
 public:
  // A forked child: runs `setup` (limits, mount namespaces; it may _exit with a code of its own,
  // e.g. to report that a namespace was refused), then `body`, then exits 0.
  ChildProcess(const std::function<void()>& setup, const std::function<void(ChildPipes)>& body);
  // A fresh copy of this program started as child `role` with `argument` (see RunIfChild);
  // `setup` runs in the child before the copy starts.
  ChildProcess(const std::string& role, const std::string& argument,
               const std::function<void()>& setup = nullptr);
  ~ChildProcess() { Finish(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Reads exactly sizeof(T) bytes the child sent; false when it sent fewer.
  template <typename T>
  bool Receive(T* value) {
    return Receive(value, sizeof(T));
  }
  bool Receive(void* data, size_t size);
  // The child's stop descriptor reads end-of-file from now on.
  void Stop();
  // Waits for the child: its exit code, or 128 + the number of the signal that ended it.
  int Finish();

 private:
  pid_t pid_ = -1;  // -1 once waited for
  int out_ = -1;    // read end of the child's out pipe
  int stop_ = -1;   // write end of the child's stop pipe
  int code_ = -1;   // what Finish answers once the child is gone

  void Start(const std::function<void()>& setup, const std::function<void(ChildPipes)>& body,
             const std::string& role, const std::string& argument);
};

// Child side: sends `value` whole.
template <typename T>
bool Send(int fd, const T& value) {
  return write(fd, &value, sizeof(T)) == static_cast<ssize_t>(sizeof(T));
}

// For a static initializer: when this program was started as child `role`, runs `body` with
// the child's descriptors and argument and exits 0 without running any test; otherwise false.
//   const bool kIsCleanerChild = RunIfChild("cleaner", &Cleaner);
bool RunIfChild(const char* role, void (*body)(ChildPipes pipes, const std::string& argument));

}  // namespace zu_test

#endif  // ZU_TESTS_SUPPORT_POSIX_CHILD_PROCESS_H_
