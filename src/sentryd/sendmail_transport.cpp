// Delivery through the local mail system: every Debian MTA installs
// /usr/sbin/sendmail, which takes the recipients from the headers (-t) and
// does not treat a lone dot as the end (-oi). The program gets its
// arguments as a vector, never through a shell.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "sentryd/transport.h"

namespace sentryd {
namespace {

using Clock = std::chrono::steady_clock;

class SendmailTransport : public Transport {
 public:
  SendmailTransport(std::string program, std::chrono::seconds limit) : program_(std::move(program)), limit_(limit) {}

  std::string send(const OutgoingMail& mail, const std::atomic<bool>& cancel) override {
    int in[2];
    if (::pipe2(in, O_CLOEXEC) != 0) return std::string("cannot make a pipe: ") + ::strerror(errno);
    // Everything the child needs is prepared before fork: after it, only
    // async-signal-safe calls.
    const char* argv[] = {program_.c_str(), "-t", "-oi", nullptr};
    const char* envp[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
    pid_t pid = ::fork();
    if (pid < 0) {
      ::close(in[0]);
      ::close(in[1]);
      return std::string("cannot fork: ") + ::strerror(errno);
    }
    if (pid == 0) {
      sigset_t none;
      ::sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      ::signal(SIGPIPE, SIG_DFL);
      int null = ::open("/dev/null", O_WRONLY);
      if (::dup2(in[0], STDIN_FILENO) < 0 || null < 0 || ::dup2(null, STDOUT_FILENO) < 0) ::_exit(127);
      ::close_range(3, ~0U, 0);
      ::execve(argv[0], const_cast<char* const*>(argv), const_cast<char* const*>(envp));
      ::_exit(127);
    }
    ::close(in[0]);
    Clock::time_point deadline = Clock::now() + limit_;
    std::string error = write_all(in[1], mail.message, deadline, cancel);
    ::close(in[1]);
    int status = 0;
    while (true) {
      pid_t done = ::waitpid(pid, &status, WNOHANG);
      if (done == pid) break;
      if (done < 0 && errno != EINTR) return "lost the sendmail process";
      if (Clock::now() >= deadline || cancel.load()) {
        ::kill(pid, SIGKILL);  // our own child, by its id
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return cancel.load() ? "cancelled at exit" : program_ + " did not finish in time";
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!error.empty()) return error;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) return "cannot run " + program_;
    if (WIFEXITED(status)) return program_ + " exited with status " + std::to_string(WEXITSTATUS(status));
    return program_ + " was killed by signal " + std::to_string(WTERMSIG(status));
  }

 private:
  static std::string write_all(int fd, const std::string& text, Clock::time_point deadline,
                               const std::atomic<bool>& cancel) {
    ::fcntl(fd, F_SETFL, O_NONBLOCK);
    size_t done = 0;
    while (done < text.size()) {
      if (Clock::now() >= deadline || cancel.load()) return "sendmail did not take the message in time";
      ssize_t n = ::write(fd, text.data() + done, text.size() - done);
      if (n > 0) {
        done += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno == EAGAIN) {
        struct pollfd p = {fd, POLLOUT, 0};
        ::poll(&p, 1, 100);
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      return "sendmail closed its input early";
    }
    return "";
  }

  std::string program_;
  std::chrono::seconds limit_;
};

}  // namespace

std::unique_ptr<Transport> make_sendmail_transport(std::string program, std::chrono::seconds limit) {
  return std::make_unique<SendmailTransport>(std::move(program), limit);
}

}  // namespace sentryd
