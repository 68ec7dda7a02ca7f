"""A hubwardend daemon on a sandbox root, reachable on loopback with a private PAM stack.

Shared by scripts/console_serve (for people) and scripts/console_test (for the
browser test). The PAM stack is pam_wrapper with a pam_matrix password file in
a scratch folder, so the machine's PAM files and accounts are never used;
cleanup() removes the scratch folder and the service copies pam_wrapper leaves
in /tmp/pam.? when its process ends.
"""

import glob
import http.client
import os
import shutil
import ssl
import subprocess
import tempfile
import time

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LOGINS = {"admin": "admin-pw", "monitor": "monitor-pw"}


def pam_libraries():
    libdir = "/usr/lib/x86_64-linux-gnu"
    for candidate in glob.glob("/usr/lib/*/libpam_wrapper.so"):
        libdir = os.path.dirname(candidate)
    return os.path.join(libdir, "libpam_wrapper.so"), os.path.join(libdir, "pam_wrapper", "pam_matrix.so")


class ConsoleSetup:
    """A scratch folder with (unless given) a demo root, the host configuration and the PAM stack."""

    def __init__(self, binary, port, root=None, web=None, idle_period=1.0, extra_config=""):
        self.binary = os.path.abspath(binary)
        self.port = port
        self.work = tempfile.mkdtemp(prefix="hubwarden-console.")
        os.chmod(self.work, 0o755)
        self.root = os.path.abspath(root) if root else os.path.join(self.work, "root")
        subprocess.run([os.path.join(HERE, "make_demo_root"), self.root], check=True, stdout=subprocess.DEVNULL)
        beside = os.path.join(os.path.dirname(self.binary), "web")
        self.web_dir = os.path.abspath(web) if web else (beside if os.path.isdir(beside) else None)
        self.pam_copies_before = set(glob.glob("/tmp/pam.?"))
        self._write_config(idle_period, extra_config)
        self._write_pam()
        self.log_path = os.path.join(self.work, "daemon.log")

    def _write_config(self, idle_period, extra_config):
        config = os.path.join(self.root, "etc/hubwarden/hubwardend.conf.plist")
        os.makedirs(os.path.dirname(config), exist_ok=True)
        with open(config + ".new", "w") as f:
            f.write(f"""<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>listen</key><array><string>127.0.0.1:{self.port}</string></array>
<key>idlePeriod</key><real>{float(idle_period)}</real>
{extra_config}
</dict></plist>
""")
        os.replace(config + ".new", config)

    def _write_pam(self):
        wrapper, matrix = pam_libraries()
        self.pam_wrapper = wrapper
        self.services = os.path.join(self.work, "pam")
        os.makedirs(self.services)
        passdb = os.path.join(self.work, "passdb")
        with open(passdb, "w") as f:
            for user, password in LOGINS.items():
                f.write(f"{user}:{password}:hubwardend\n")
        # PAM reads "other" for its defaults whatever the service.
        for service in ("hubwardend", "other"):
            with open(os.path.join(self.services, service), "w") as f:
                f.write(f"auth required {matrix} passdb={passdb}\n")
                f.write(f"account required {matrix} passdb={passdb}\n")

    def environment(self):
        env = dict(os.environ, PAM_WRAPPER="1", PAM_WRAPPER_SERVICE_DIR=self.services, LD_PRELOAD=self.pam_wrapper,
                   ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0")
        if self.web_dir:
            env["HUBWARDEN_WEB_DIR"] = self.web_dir
        return env

    def start(self, stdout=None, with_child=None):
        """Starts `hubwardend serve --root ROOT`; with_child is a command the daemon is made the parent of.

        The child is started by a shell that then execs the daemon, so the
        child is the daemon's own descendant (a daemon on a sandbox root only
        signals its descendants). stdout None inherits ours; "log" writes
        self.log_path.
        """
        command = [self.binary, "serve", "--root", self.root]
        if with_child:
            command = ["/bin/sh", "-c", with_child + ' & exec "$0" "$@"'] + command
        out = open(self.log_path, "w") if stdout == "log" else stdout
        try:
            return subprocess.Popen(command, env=self.environment(), stdout=out, stderr=subprocess.STDOUT)
        finally:
            if out is not None:
                out.close()

    def url(self, path="/"):
        return f"https://127.0.0.1:{self.port}{path}"

    def wait_ready(self, process, seconds=30):
        """Waits until the HTTPS port answers; raises with the log when the daemon exits or the time is up."""
        deadline = time.monotonic() + seconds
        context = ssl._create_unverified_context()
        while time.monotonic() < deadline:
            if process.poll() is not None:
                raise RuntimeError("the daemon exited at start:\n" + self.log())
            try:
                connection = http.client.HTTPSConnection("127.0.0.1", self.port, context=context, timeout=2)
                connection.request("GET", "/")
                connection.getresponse().read()
                connection.close()
                return
            except (OSError, http.client.HTTPException):
                time.sleep(0.1)
        raise RuntimeError("the daemon did not answer within %d s:\n%s" % (seconds, self.log()))

    def log(self):
        try:
            with open(self.log_path, errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def _names_our_passdb(self, folder):
        for name in os.listdir(folder) if os.path.isdir(folder) else []:
            try:
                with open(os.path.join(folder, name), errors="replace") as f:
                    if self.work in f.read():
                        return True
            except OSError:
                continue
        return False

    def cleanup(self):
        # pam_wrapper leaves its service copies behind when a process ends.
        # Only ours go: their files name our password file, and other
        # consoles may be running beside this one.
        for leftover in set(glob.glob("/tmp/pam.?")) - self.pam_copies_before:
            if self._names_our_passdb(leftover):
                shutil.rmtree(leftover, ignore_errors=True)
        shutil.rmtree(self.work, ignore_errors=True)
