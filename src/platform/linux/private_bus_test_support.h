// Test support: a D-Bus system bus of the test's own, listening where a
// sandbox root's programs look for the system bus
// (<root>/run/dbus/system_bus_socket), stopped with the object. Policy:
// everyone may own any name and send anything; nothing else is on it.
// Header-only; use from the test's thread.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "platform/linux/basics_test_support.h"
#include "platform/linux/system_bus.h"

namespace platform::testing {

class PrivateSystemBus {
 public:
  // Starts the bus for root; available() is false (and the test should
  // skip) when dbus-daemon is not installed or does not come up in time.
  explicit PrivateSystemBus(const ScratchDir& root) {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) return;
    socket_ = root.mkdir("/run/dbus") + "/system_bus_socket";
    std::string conf = root.path("/run/dbus/test-bus.conf");
    root.write("/run/dbus/test-bus.conf",
               "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>system</type><listen>unix:path=" +
                   socket_ +
                   "</listen><auth>EXTERNAL</auth>"
                   "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
                   "<allow send_type=\"method_call\"/><allow send_type=\"signal\"/>"
                   "<allow receive_type=\"method_call\"/><allow receive_type=\"signal\"/>"
                   "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                   "</policy></busconfig>\n");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execl("/usr/bin/dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", ("--config-file=" + conf).c_str(),
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    struct stat st;
    while (std::chrono::steady_clock::now() < deadline) {
      if (::stat(socket_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
        available_ = true;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~PrivateSystemBus() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status;
    ::waitpid(pid_, &status, 0);
  }
  PrivateSystemBus(const PrivateSystemBus&) = delete;
  PrivateSystemBus& operator=(const PrivateSystemBus&) = delete;

  bool available() const { return available_; }
  const std::string& socket_path() const { return socket_; }

 private:
  pid_t pid_ = -1;
  bool available_ = false;
  std::string socket_;
};

}  // namespace platform::testing
