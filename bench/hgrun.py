# Shared pieces of the scale, soak and footprint runs: starts a private daemon on a free
# port with its own configuration and logs, sends one request per TCP connection, drains
# load datagrams, and reads a process's CPU time, memory and descriptors from /proc.
# Used by bench/scale.py, bench/soak.py and bench/footprint-subs.py (python3 stdlib only).
import os
import signal
import socket
import subprocess
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HZ = os.sysconf("SC_CLK_TCK")
KEY = "corvane.config.hostspread."


def build_dir():
    return os.path.abspath(os.environ.get("HOSTGAUGE_BUILD", os.path.join(ROOT, "build")))


def free_port():
    # Asked of the kernel, so it is free now; 3579 belongs to other daemons on the machine.
    while True:
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
        if port != 3579:
            return port


def median(values):
    ordered = sorted(values)
    if not ordered:
        return float("nan")
    mid = len(ordered) // 2
    return ordered[mid] if len(ordered) % 2 else (ordered[mid - 1] + ordered[mid]) / 2


class Proc:
    """Readings of one process from /proc, all cheap enough to take often."""

    def __init__(self, pid):
        self.pid = pid

    def ticks(self):
        # utime+stime in clock ticks; the fields after the command name, which may hold blanks.
        with open(f"/proc/{self.pid}/stat") as f:
            rest = f.read().rsplit(")", 1)[1].split()
        return int(rest[11]) + int(rest[12]), int(rest[13]) + int(rest[14])

    def cpu_ns(self):
        # The scheduler's run time to the nanosecond, summed over threads.
        total = 0
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{task}/schedstat") as f:
                total += int(f.read().split()[0])
        return total

    def status_kib(self, key):
        with open(f"/proc/{self.pid}/status") as f:
            for line in f:
                if line.startswith(key + ":"):
                    return int(line.split()[1])
        return 0

    def rss(self):
        return self.status_kib("VmRSS")

    def hwm(self):
        return self.status_kib("VmHWM")

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def children(self):
        try:
            with open(f"/proc/{self.pid}/task/{self.pid}/children") as f:
                return [int(p) for p in f.read().split()]
        except OSError:
            return []


class Daemon:
    """A hostgauge of our own: configuration from scripts/gen-config.sh, then adjusted."""

    def __init__(self, samplerate=5, windowsize=6, extra=None):
        self.work = tempfile.mkdtemp(prefix="hg-bench-")
        self.run_dir = os.path.join(self.work, "run")
        self.port = free_port()
        build = build_dir()
        for exe in ("hostgauge", "hostgauge-vmstat"):
            if not os.access(os.path.join(build, exe), os.X_OK):
                raise SystemExit(f"build {build}/{exe} first (HOSTGAUGE_BUILD names the build)")
        subprocess.run(["bash", os.path.join(ROOT, "scripts/gen-config.sh"), self.run_dir],
                       check=True, capture_output=True)
        props = {"port": self.port, "probepath": f"{build}/hostgauge-vmstat -S",
                 "samplerate": samplerate, "windowsize": windowsize,
                 "hostlifetime": 10 * 86400,
                 "agentport": 0}  # the template's fixed 3333 would collide between runs
        props.update(extra or {})
        self._rewrite(os.path.join(self.run_dir, "hostspread.properties"), props)
        self.out = open(os.path.join(self.work, "daemon.out"), "w")
        self.popen = subprocess.Popen([os.path.join(build, "hostgauge"), self.run_dir],
                                      stdout=self.out, stderr=subprocess.STDOUT)
        self.pid = self.popen.pid
        self.proc = Proc(self.pid)
        self._wait_started()
        self.log = os.path.join(self.run_dir, "log", f"hostgauge{self.pid}_error.log")
        self.jsl = os.path.join(self.run_dir, "log", f"hostgauge{self.pid}_error.jsl")

    @staticmethod
    def _rewrite(path, props):
        with open(path) as f:
            lines = f.read().splitlines()
        seen = set()
        for i, line in enumerate(lines):
            key = line.split("=", 1)[0]
            if key.startswith(KEY) and key[len(KEY):] in props:
                name = key[len(KEY):]
                lines[i] = f"{key}={props[name]}"
                seen.add(name)
        lines += [f"{KEY}{k}={v}" for k, v in props.items() if k not in seen]
        with open(path, "w") as f:
            f.write("\n".join(lines) + "\n")

    def _wait_started(self):
        # The pid file appears once start-up, with its first CPU rating, is over.
        pidfile = os.path.join(self.run_dir, "hostgauge.pid")
        for _ in range(600):
            if os.path.exists(pidfile) and os.path.getsize(pidfile) > 0:
                return
            if self.popen.poll() is not None:
                raise SystemExit(f"daemon ended with {self.popen.returncode}; see {self.work}")
            time.sleep(0.1)
        raise SystemExit("daemon did not start")

    def request(self, text, timeout=30.0):
        return request(self.port, text, timeout)

    def stop(self):
        if self.popen.poll() is None:
            self.popen.send_signal(signal.SIGTERM)
            try:
                self.popen.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()
        self.out.close()
        return self.popen.returncode

    def error_records(self):
        # Error and fatal-error records go to the .jsl file: one record per category line.
        try:
            with open(self.jsl, errors="replace") as f:
                text = f.read()
        except OSError:
            return []
        return [line for line in text.splitlines() if "hostgauge/" in line]


def request(port, text, timeout=30.0):
    """One request on its own connection; the reply is everything up to the daemon's close."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as s:
        s.sendall(text.encode() if isinstance(text, str) else text)
        parts = []
        while True:
            chunk = s.recv(65536)
            if not chunk:
                return b"".join(parts)
            parts.append(chunk)


STATUS = "GET /?get&cvnlbinfo HTTP/1.0\r\n\r\n"


def create(ident, port, samplerate=5000, window=6, replyfreq=10000, change=10,
           stats=("cpu", "bogo", "vmem"), host="127.0.0.1"):
    tags = "".join(f"<stat>{s}</stat>" for s in stats)
    return (f"<cvnlbreq command=CREATE><version>1.0</version><host>{host}</host>"
            f"<port>{port}</port><samplerate>{samplerate}</samplerate>"
            f"<windowsize>{window}</windowsize><id>{ident}</id>"
            f"<replyfreq>{replyfreq}</replyfreq><percentchange>{change}</percentchange>"
            f"{tags}</cvnlbreq>")


def kill(ident):
    return f"<cvnlbreq command=KILL><version>1.0</version><id>{ident}</id></cvnlbreq>"


def is_error(reply):
    return b'type="error"' in reply or not reply.startswith(b"<?xml")


class Receiver:
    """A UDP port that a load balancer would hold: drains and counts datagrams."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self.sock.bind(("127.0.0.1", 0))
        self.sock.settimeout(0.2)
        self.port = self.sock.getsockname()[1]
        self.count = 0
        self.last = b""
        self._stop = False
        self.thread = threading.Thread(target=self._drain, daemon=True)
        self.thread.start()

    def _drain(self):
        while not self._stop:
            try:
                self.last = self.sock.recv(2048)
                self.count += 1
            except socket.timeout:
                pass

    def close(self):
        self._stop = True
        self.thread.join()
        self.sock.close()


class SentCounter:
    """Counts the daemon's "sent to" records as the log grows, reading only what is new."""

    def __init__(self, path):
        self.path = path
        self.offset = 0
        self.count = 0
        self.tail = b""

    def poll(self):
        try:
            with open(self.path, "rb") as f:
                f.seek(self.offset)
                data = f.read()
        except OSError:
            return self.count
        self.offset += len(data)
        data = self.tail + data
        cut = data.rfind(b"\n") + 1
        self.tail = data[cut:]
        for line in data[:cut].split(b"\n"):
            if line.startswith(b"sent to "):
                self.count += 1
        return self.count
