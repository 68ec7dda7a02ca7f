// Test support: a private PAM stack for tests of password checks, made of
// Debian's libpam-wrapper (which points libpam at a folder of our own
// service files instead of /etc/pam.d) and its pam_matrix module (which
// checks passwords against a plain text file). Nothing on the machine's own
// PAM configuration is read or changed.
//
// libpam-wrapper works only when preloaded at process start, so a test runs
// the code under test in a new process: its own binary again
// (rerun_self_with_pam_stack) or the daemon, started with environment().
// The wrapper copies the service files into a folder /tmp/pam.X of its own
// and leaves it behind when the process is killed; remove_pam_wrapper_copies
// clears those of a finished process.
//
// Header-only: used by *_test.cpp files alone. Not thread-safe: use from the
// test's thread.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace hubwardend::serve::testing {

struct PamTestUser {
  std::string name;
  std::string password;  // no ':' and no newline: the password file is "name:password:service" lines
  // The service whose account check lets the user in; "" means the stack's
  // own service. Another name makes the password right but the account
  // refused.
  std::string allowed_service;
};

class PamTestStack {
 public:
  // Writes dir/pam-services/<service> (and "other") and dir/pam-passdb. dir must exist
  // and outlive the stack's use.
  PamTestStack(const std::string& dir, std::string service, const std::vector<PamTestUser>& users)
      : service_(std::move(service)), service_dir_(dir + "/pam-services"), passdb_(dir + "/pam-passdb") {
    std::filesystem::create_directories(service_dir_);
    std::ofstream passdb(passdb_, std::ios::trunc);
    for (const PamTestUser& user : users) {
      passdb << user.name << ':' << user.password << ':'
             << (user.allowed_service.empty() ? service_ : user.allowed_service) << '\n';
    }
    std::ofstream service_file(service_dir_ + "/" + service_, std::ios::trunc);
    service_file << "auth required " << matrix_module() << " passdb=" << passdb_ << '\n'
                 << "account required " << matrix_module() << " passdb=" << passdb_ << '\n';
    // libpam falls back to "other" for a service without a file: refuse
    // everything there, as a machine's own "other" does.
    std::ofstream other(service_dir_ + "/other", std::ios::trunc);
    other << "auth required " << matrix_module() << " passdb=" << dir << "/pam-no-such-passdb\n"
          << "account required " << matrix_module() << " passdb=" << dir << "/pam-no-such-passdb\n";
    if (!passdb || !service_file || !other) ADD_FAILURE() << "cannot write the PAM stack under " << dir;
  }

  // Whether libpam-wrapper is installed (scripts/setup installs it).
  static bool available() { return !wrapper_library().empty() && !matrix_module().empty(); }

  // Why a process of this build cannot use the stack, or "" when it can.
  // The wrapper loads libpam with RTLD_DEEPBIND, which the sanitizer
  // runtimes refuse outright (the wrapper's switch against it covers only
  // the modules), so sanitized builds leave PAM round trips to plain builds.
  static std::string unusable_reason() {
#ifdef HUBWARDEN_SANITIZED
    return "libpam-wrapper loads libpam with RTLD_DEEPBIND, which the sanitizers refuse";
#else
    return available() ? "" : "libpam-wrapper is not installed (scripts/setup)";
#endif
  }

  const std::string& service() const { return service_; }

  // What a process must be started with to use the stack.
  std::vector<std::pair<std::string, std::string>> environment() const {
    std::vector<std::pair<std::string, std::string>> env = {
        {"PAM_WRAPPER", "1"},
        {"PAM_WRAPPER_SERVICE_DIR", service_dir_},
        {"LD_PRELOAD", wrapper_library()},
    };
    return env;
  }

  static std::string wrapper_library() { return first_existing("libpam_wrapper.so"); }
  static std::string matrix_module() { return first_existing("pam_wrapper/pam_matrix.so"); }

 private:
  static std::string first_existing(const std::string& name) {
    for (const char* dir : {"/usr/lib/x86_64-linux-gnu/", "/usr/lib/aarch64-linux-gnu/", "/usr/lib64/", "/usr/lib/"}) {
      if (std::filesystem::exists(std::string(dir) + name)) return std::string(dir) + name;
    }
    return "";
  }

  std::string service_;
  std::string service_dir_;
  std::string passdb_;
};

// Removes the wrapper's copies of the service files that process pid made
// (each copy holds a "pid" file naming its process).
inline void remove_pam_wrapper_copies(pid_t pid) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp", ec)) {
    if (entry.path().filename().string().rfind("pam.", 0) != 0) continue;
    std::ifstream pid_file(entry.path() / "pid");
    pid_t owner = 0;
    if (pid_file >> owner && owner == pid) std::filesystem::remove_all(entry.path(), ec);
  }
}

// Starts argv with the current environment plus env (replacing entries of
// the same name) and GTEST_OUTPUT removed, so a re-run test binary does not
// overwrite the report of the run that started it. Returns the pid, or -1.
inline pid_t spawn_with_environment(const std::vector<std::string>& argv,
                                    const std::vector<std::pair<std::string, std::string>>& env) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    size_t eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  merged.erase("GTEST_OUTPUT");
  for (const auto& [name, value] : env) merged[name] = value;
  std::vector<std::string> entries;
  for (const auto& [name, value] : merged) entries.push_back(name + "=" + value);
  std::vector<char*> envp, args;
  for (std::string& e : entries) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<std::string> argv_copy = argv;
  for (std::string& a : argv_copy) args.push_back(a.data());
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), envp.data()) != 0) return -1;
  return pid;
}

// True in a process started by rerun_self_with_pam_stack.
inline bool running_under_pam_stack() {
  const char* flag = getenv("PAM_WRAPPER");
  return flag != nullptr && std::string(flag) == "1" && getenv("HUBWARDEN_TEST_PAM_SERVICE") != nullptr;
}

// The service name a re-run process is to use.
inline std::string pam_stack_service() {
  const char* service = getenv("HUBWARDEN_TEST_PAM_SERVICE");
  return service != nullptr ? service : "";
}

// Runs the named test of this binary in a new process under stack, waiting
// at most timeout; returns its exit status (-1 when it could not start, was
// killed or timed out). The wrapper's copies are removed afterwards.
inline int rerun_self_with_pam_stack(const PamTestStack& stack, const std::string& test_name,
                                     std::chrono::seconds timeout = std::chrono::seconds(60)) {
  auto env = stack.environment();
  env.emplace_back("HUBWARDEN_TEST_PAM_SERVICE", stack.service());
  pid_t pid = spawn_with_environment({"/proc/self/exe", "--gtest_filter=" + test_name}, env);
  if (pid < 0) return -1;
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  pid_t done = 0;
  while ((done = waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (done == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    remove_pam_wrapper_copies(pid);
    return -1;
  }
  remove_pam_wrapper_copies(pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace hubwardend::serve::testing
