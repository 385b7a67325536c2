"""The daemon with a bus, a session service and a journal of its own, and strace on it.

For scripts that run it in a sandbox: the journal's socket is the system's.
"""
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(SOURCE, "build", "dev")
JOURNAL = "/run/systemd/journal/socket"
SESSION, SECOND = 7, 3
STOP_LIMIT = 5  # seconds
PATIENCE = 20  # seconds for what no fault keeps from happening


def until(condition, limit=PATIENCE):
    """Whether the condition holds within the limit."""
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def require(condition, what):
    if not condition:
        sys.exit(f"{os.path.basename(sys.argv[0])}: {what}")


class Journal:
    """The receiving end of the journal's protocol."""

    def __init__(self):
        os.makedirs(os.path.dirname(JOURNAL))
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(JOURNAL)
        self.records = []
        threading.Thread(target=self.receive, daemon=True).start()

    def receive(self):
        while True:
            lines = self.socket.recv(1 << 20).decode(errors="replace").split("\n")
            record = dict(line.split("=", 1) for line in lines if "=" in line)
            self.records.append((record.get("PRIORITY"), record.get("MESSAGE", "")))

    def has(self, text):
        return any(text in message for _, message in list(self.records))

    def errors(self):
        return [message for priority, message in list(self.records) if priority == "3"]


class SessionService:
    """The demo's, with its commands and the lines that it prints."""

    def __init__(self, directory):
        description = os.path.join(directory, "session.json")
        with open(description, "w", encoding="ascii") as file:
            json.dump({"display": 10, "uid": 1000, "sec:nla": True, "ntlm": "alice:::0:::"}, file)
        self.process = subprocess.Popen([os.path.join(BUILD, "vorl_demo_session"), description],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.lines = []
        threading.Thread(target=self.read, daemon=True).start()
        require(until(lambda: self.count("owning")), "the session service is not on the bus")

    def read(self):
        for line in self.process.stdout:
            self.lines.append(line)

    def command(self, *words):
        self.process.stdin.write(" ".join(map(str, words)) + "\n")
        self.process.stdin.flush()

    def count(self, text):
        return sum(text in line for line in list(self.lines))


def start_bus(directory):
    address = f"unix:path={directory}/bus"
    subprocess.Popen(["dbus-daemon", f"--config-file={SOURCE}/demo/bus.conf",
                      f"--address={address}", "--nofork", "--nopidfile", "--nosyslog"],
                     stderr=subprocess.DEVNULL)
    require(until(lambda: os.path.exists(f"{directory}/bus")), "the bus does not start")
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = address


class Daemon:
    def __init__(self, journal):
        self.home = tempfile.mkdtemp(prefix="home-", dir="/run")
        self.work_directory = os.path.join(self.home, ".vorl")
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        config = os.path.join(self.home, "vorl_proxy.json")
        with open(config, "w", encoding="ascii") as file:
            json.dump({"listen:addr": "127.0.0.1", "listen:port": self.port, "listen:timeout": 3,
                       "x11rdp:path": os.path.join(BUILD, "tests", "shadow_stub")}, file)
        self.errors = open(os.path.join(self.home, "errors"), "w+", encoding="utf-8")
        self.process = subprocess.Popen([os.path.join(BUILD, "vorl_proxy"), "--config", config],
                                        env=dict(os.environ, HOME=self.home),
                                        stdout=subprocess.DEVNULL, stderr=self.errors)
        require(until(lambda: journal.has("start: started")), "the daemon does not start")
        require(until(lambda: self.count("task") == 2), "the periodic task does not start")

    def lives(self):
        return self.process.poll() is None

    def count(self, directory):
        try:
            return len(os.listdir(f"/proc/{self.process.pid}/{directory}"))
        except OSError:
            return 0

    def children(self):
        pids = []
        for task in os.listdir(f"/proc/{self.process.pid}/task"):
            try:
                with open(f"/proc/{self.process.pid}/task/{task}/children", encoding="ascii") as file:
                    pids += map(int, file.read().split())
            except OSError:  # the thread has ended
                pass
        return pids

    def files(self):
        return sorted(name for name in os.listdir(self.work_directory) if not name.endswith(".log"))

    def idle(self):
        return not self.lives() or (not self.children() and self.count("task") == 2)


class Tracer:
    """strace on all threads of the daemon, and on forked children until they execute a program."""

    def __init__(self, daemon, *options):
        self.log = os.path.join(daemon.home, "strace")
        self.process = subprocess.Popen(
            ["strace", "-f", "-b", "execve", "-o", self.log, "-p", str(daemon.process.pid), *options],
            stderr=subprocess.PIPE, text=True)
        require("attached" in self.process.stderr.readline(), "strace cannot trace the daemon")

    def detach(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.communicate()
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return log.read()


class Scenario:
    """One daemon's scenario, with or without a fault."""

    def __init__(self, journal, service):
        self.journal, self.service = journal, service
        journal.records.clear()
        service.lines.clear()
        self.daemon = Daemon(journal)
        self.client = None

    def allow(self):
        """Whether the daemon has tried to listen."""
        before = self.service.count("<- proxyListenStarted")
        self.service.command("allow", SESSION, SECOND)
        return until(lambda: not self.daemon.lives() or self.journal.errors() or
                     self.service.count("<- proxyListenStarted") > before, 2)

    def connect(self):
        """What becomes of a client: "served", "let go", "not admitted" or "held"."""
        self.client = socket.socket()
        self.client.settimeout(12)  # a launch that fails takes five seconds
        try:
            self.client.connect(("127.0.0.1", self.daemon.port))
        except OSError:
            return "not admitted"
        try:
            self.client.sendall(b"hello")
            return "served" if self.client.recv(5, socket.MSG_WAITALL) == b"hello" else "let go"
        except socket.timeout:
            return "held"
        except OSError:
            return "let go"

    def connection(self):
        self.allow()
        outcome = self.connect()
        self.client.close()
        until(lambda: self.daemon.idle() and not (outcome == "served" and self.daemon.files()), 6)
        return outcome

    def second_connection(self):
        """Whether another allowance works, tried again while the daemon is busy with the first."""
        def works():
            self.journal.records.clear()
            self.allow()
            return self.connect() == "served" or not self.daemon.lives()
        served = until(works, 15)
        return served and self.daemon.lives()

    def stop(self):
        """The seconds that it takes; nothing when it takes more than twice the limit."""
        begin = time.monotonic()
        self.daemon.process.send_signal(signal.SIGTERM)
        try:
            self.daemon.process.wait(2 * STOP_LIMIT)
        except subprocess.TimeoutExpired:
            self.daemon.process.kill()
            self.daemon.process.wait()
            return None
        return time.monotonic() - begin
