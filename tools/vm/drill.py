"""The power-loss drill's host side (tools/vm/drill runs it; see there).

One machine state is saved once, booted with the drill's programs and
waiting for orders; each drill restores it with a fresh card in the slot,
starts the appliance on a print job, drives line 55 low at a random command
of the job, cuts the power at a chosen delay after the edge, and then judges
the card as it was at the cut and the commands the controller received.

The cut: the guest's agent stops the machine through its panic device at
the chosen instant, in the guest's own time (QEMU's panic action is
"pause"), so nothing the guest does after that instant reaches the card:
the drill copies the card image there and then. It then lets the machine
run on, only to hear how the appliance went on (its times, its stop) and to
read the card the appliance left behind, which gives every record the log
was given; the machine is killed afterwards, never shut down.
"""

import argparse
import calendar
import hashlib
import json
import os
import random
import re
import select
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

MAX_SIZE = 102400          # the live log's limit
OLDER_FILES = 6            # ".1" to ".6"
LOG_DIR = "softShutDownLogFiles"
LOG_NAME = "shutDown.log"
# A card as appliances have them: FAT32 with 32 KiB clusters. The image is
# sparse; only what the file system wrote takes room.
CARD_MIB = 4096
JOB_COMMANDS = 400
STATUS_QUERY = "M117"
ZERO_SLOTS_CHANCE = 0.03   # answers that report a full controller
RECORD = re.compile(rb"^\d{4}\.\d\d\.\d\d \d\d:\d\d:\d\d\.\d{3} <(DEBUG|WARNING|CRITICAL|FATAL)> ")
MODULES = ["fs/fat/fat", "fs/fat/vfat", "fs/nls/nls_cp437", "fs/nls/nls_ascii", "fs/nls/nls_utf8",
           "drivers/virtio/virtio_ring", "drivers/virtio/virtio", "drivers/virtio/virtio_pci_modern_dev",
           "drivers/virtio/virtio_pci_legacy_dev", "drivers/virtio/virtio_pci", "drivers/block/virtio_blk"]
# The guest's part of the init's command: its modules, the card and the
# printer's port under the appliance's names, then the agent.
COMMAND = """for m in %s; do insmod /vm/modules/$m.ko || exit 1; done
while [ ! -e /sys/block/vda/dev ]; do usleep 10000; done
dev=$(cat /sys/block/vda/dev)
mknod /dev/mmcblk0p3 b ${dev%%:*} ${dev#*:}
mknod /dev/ttyO1 c 4 66
mkdir -p /tmp/mnt/dev/mmcblk0p3
exec ./drillAgent
""" % " ".join(m.split("/")[-1] for m in MODULES)


def log(text):
    print(text, flush=True)


def run(args, **kwargs):
    return subprocess.run(args, check=True, **kwargs)


# ---------------------------------------------------------------- the machine

class Machine:
    """One QEMU process with its three sockets: the agent's line (ttyS1), the
    printer's line (ttyS2, /dev/ttyO1 in the guest) and QMP."""

    def __init__(self, cache, work, card, incoming=None):
        listeners = {}
        for name in ("agent", "printer", "qmp"):
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            listener.bind(os.path.join(work, name + ".sock"))
            listener.listen(1)
            listeners[name] = listener
        args = self.arguments(cache, work, card)
        if incoming:
            args += ["-incoming", "exec:cat " + incoming]
        self.process = subprocess.Popen(args, stdin=subprocess.DEVNULL)
        self.sockets = {}
        for name, listener in listeners.items():
            listener.settimeout(30)
            self.sockets[name], _ = listener.accept()
            listener.close()
        self.agentBuffer = b""
        self.qmpBuffer = b""
        self.qmp({"execute": "qmp_capabilities"})
        if incoming:
            # The state was saved stopped, and a restored machine stays so.
            while self.qmp({"execute": "query-status"})["status"] == "inmigrate":
                time.sleep(0.01)
            self.qmp({"execute": "cont"})

    @staticmethod
    def arguments(cache, work, card):
        """QEMU's command line; a saved state holds for the same line only."""
        def sock(name):
            return "socket,id=%s,path=%s" % (name, os.path.join(work, name + ".sock"))
        return ["qemu-system-x86_64", "-machine", "pc", "-accel", "tcg", "-smp", "1", "-m", "256",
                "-kernel", os.path.join(cache, "vmlinux"), "-initrd", os.path.join(cache, "drill", "initrd"),
                "-append", "console=ttyS0 panic=-1 loglevel=4 init_on_free=1",
                "-display", "none", "-monitor", "none", "-no-reboot", "-nic", "none",
                "-serial", "file:" + os.path.join(work, "console"),
                "-chardev", sock("agent"), "-serial", "chardev:agent",
                "-chardev", sock("printer"), "-serial", "chardev:printer",
                "-chardev", sock("qmp"), "-mon", "chardev=qmp,mode=control",
                # What the guest wrote is in the image file as soon as the
                # device completes it; a host flush is not needed, since the
                # host does not lose power.
                "-drive", "file=%s,format=raw,if=none,id=card,cache=unsafe" % card,
                "-device", "virtio-blk-pci,drive=card",
                "-device", "pvpanic", "-action", "panic=pause"]

    def kill(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        for s in self.sockets.values():
            s.close()

    def send(self, text):
        self.sockets["agent"].sendall(text.encode())

    def qmpMessage(self, timeout):
        while b"\n" not in self.qmpBuffer:
            ready, _, _ = select.select([self.sockets["qmp"]], [], [], timeout)
            if not ready:
                return None
            chunk = self.sockets["qmp"].recv(65536)
            if not chunk:
                raise RuntimeError("the machine closed its QMP socket")
            self.qmpBuffer += chunk
        line, self.qmpBuffer = self.qmpBuffer.split(b"\n", 1)
        return json.loads(line)

    def qmp(self, command):
        self.sockets["qmp"].sendall(json.dumps(command).encode() + b"\n")
        while True:
            message = self.qmpMessage(60)
            if message is None:
                raise RuntimeError("no answer to %s" % command)
            if "return" in message or "error" in message:
                if "error" in message:
                    raise RuntimeError("%s: %s" % (command, message["error"]))
                return message["return"]

    def lines(self, timeout, panicked=None):
        """Lines from the agent's line until a quiet of timeout seconds;
        panicked() is called, with the machine stopped, when the guest cut
        its power."""
        agent, qmp = self.sockets["agent"], self.sockets["qmp"]
        while True:
            if b"\n" in self.agentBuffer:
                line, self.agentBuffer = self.agentBuffer.split(b"\n", 1)
                yield line.decode("utf-8", "replace").rstrip("\r")
                continue
            ready, _, _ = select.select([agent, qmp], [], [], timeout)
            if not ready:
                return
            if qmp in ready:
                message = self.qmpMessage(1)
                if message and message.get("event") == "GUEST_PANICKED" and panicked:
                    panicked()
                    self.qmp({"execute": "cont"})
            if agent in ready:
                chunk = agent.recv(65536)
                if not chunk:
                    return
                self.agentBuffer += chunk


# ---------------------------------------------------------------- the controller

class Controller(threading.Thread):
    """The printer's controller on the printer's line: answers every framed
    command "~CMD\\r\\n" with "ok <free slots>\\r\\n", records each with the
    time it came, and at the edgeAt-th job command has the agent drive the
    edge."""

    def __init__(self, sock, rng, edgeAt, onEdge):
        super().__init__(daemon=True)
        self.sock, self.rng, self.edgeAt, self.onEdge = sock, rng, edgeAt, onEdge
        self.received = []   # (host seconds, command)
        self.jobCommands = 0
        self.zeroPolls = 0

    def freeSlots(self, command):
        if command == STATUS_QUERY and self.zeroPolls > 0:
            self.zeroPolls -= 1
            return 0
        if command != STATUS_QUERY and self.rng.random() < ZERO_SLOTS_CHANCE:
            self.zeroPolls = self.rng.randint(0, 2)
            return 0
        return self.rng.randint(1, 7)

    def run(self):
        pending = b""
        while True:
            try:
                chunk = self.sock.recv(65536)
            except OSError:
                return
            if not chunk:
                return
            pending += chunk
            while b"\r\n" in pending:
                frame, pending = pending.split(b"\r\n", 1)
                command = frame.decode("utf-8", "replace").lstrip("~")
                self.received.append((time.monotonic(), command))
                if command != STATUS_QUERY:
                    self.jobCommands += 1
                    if self.jobCommands == self.edgeAt:
                        self.onEdge()
                try:
                    self.sock.sendall(b"ok %d\r\n" % self.freeSlots(command))
                except OSError:
                    return


# ---------------------------------------------------------------- the card

def prefillLines(rng):
    """Records of an earlier run on the card: six full older files or
    fewer, and a live file close to its limit, so that the drill's records
    rotate the files at a random point. Every line is unique."""
    files, number = [], 0
    older = rng.randint(0, OLDER_FILES)
    for size in [MAX_SIZE] * older + [MAX_SIZE - rng.randint(1000, 30000)]:
        lines = []
        used = 0
        while used < size:
            line = b"2026.01.01 00:00:00.000 <DEBUG> earlier run, record %08d\n" % number
            number += 1
            lines.append(line)
            used += len(line)
        files.append(lines)
    # Oldest first: ".older" ... ".1", then the live file.
    return files


def makeCard(path, rng):
    files = prefillLines(rng)
    if os.path.exists(path):
        os.unlink(path)
    run(["mkfs.vfat", "-F", "32", "-s", "64", "-n", "CARD", "-C", path, str(CARD_MIB * 1024)],
        stdout=subprocess.DEVNULL)
    stage = tempfile.mkdtemp(dir=os.path.dirname(path))
    names = ["%s.%d" % (LOG_NAME, n) for n in range(len(files) - 1, 0, -1)] + [LOG_NAME]
    os.mkdir(os.path.join(stage, LOG_DIR))
    for name, lines in zip(names, files):
        with open(os.path.join(stage, LOG_DIR, name), "wb") as f:
            f.write(b"".join(lines))
    env = dict(os.environ, MTOOLS_SKIP_CHECK="1")
    run(["mcopy", "-i", path, "-s", os.path.join(stage, LOG_DIR), "::/"], env=env)
    shutil.rmtree(stage)
    return [line for lines in files for line in lines]


def copyCard(source, target):
    run(["cp", "--sparse=always", source, target])


def readCard(path, into):
    """The log files on the card, oldest first: {name: bytes}."""
    env = dict(os.environ, MTOOLS_SKIP_CHECK="1")
    if os.path.exists(into):
        shutil.rmtree(into)
    os.mkdir(into)
    subprocess.run(["mcopy", "-i", path, "-s", "-n", "::/" + LOG_DIR, into], env=env,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    directory = os.path.join(into, LOG_DIR)
    names = os.listdir(directory) if os.path.isdir(directory) else []
    ordered = ["%s.%d" % (LOG_NAME, n) for n in range(OLDER_FILES, 0, -1)] + [LOG_NAME]
    found = {}
    for name in ordered:
        if name in names:
            with open(os.path.join(directory, name), "rb") as f:
                found[name] = f.read()
    strays = sorted(set(names) - set(ordered))
    return found, strays


def fsckFindings(path):
    """What fsck.vfat -n finds beyond the dirty flag that every card cut
    while mounted carries."""
    result = subprocess.run(["fsck.vfat", "-n", path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    # Linux marks the mounted volume in the boot sector's state byte (offset
    # 65), not in its backup, and clears the mark at the unmount that a cut
    # never comes to.
    ignored = ("fsck.fat ", "Dirty bit is set", " Automatically removing dirty bit", "Leaving filesystem",
               "%s: " % path, "There are differences between boot sector and its backup.",
               "This is mostly harmless. Differences:", "  65:01/00", "  Not automatically fixing this.")
    return [l for l in result.stdout.decode("utf-8", "replace").splitlines()
            if l.strip() and not any(l.startswith(i) for i in ignored)]


def records(data):
    """The records of a log file: a record begins with its time and level;
    a line that does not is the rest of the record before it."""
    found = []
    whole = data.endswith(b"\n")
    for line in (data[:-1] if whole else data).split(b"\n") if data else []:
        if RECORD.match(line) or not found:
            found.append(line)
        else:
            found[-1] += b"\n" + line
    # A record cut off before its line end is not the record it began as.
    if data and not whole:
        found[-1] += b"<no line end>"
    return found


def recordMs(record):
    m = re.match(rb"^(\d{4})\.(\d\d)\.(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3})", record)
    if not m:
        return None
    y, mo, d, h, mi, s, ms = (int(x) for x in m.groups())
    return (calendar.timegm((y, mo, d, h, mi, s)) * 1000) + ms


# ---------------------------------------------------------------- one drill

class Drill:
    def __init__(self, number, seed, cutRangeUs, cache, work):
        self.number, self.seed, self.cache, self.work = number, seed, cache, work
        self.rng = random.Random(seed)
        self.edgeAt = self.rng.randint(JOB_COMMANDS // 10, JOB_COMMANDS * 9 // 10)
        self.delayUs = self.rng.randint(0, cutRangeUs)
        self.times = {}
        self.handedOver = None
        self.messages = []
        self.failures = []
        self.notes = []
        self.copied = False

    def run(self):
        card = os.path.join(self.work, "card.img")
        cut = os.path.join(self.work, "cut.img")
        t0 = time.monotonic()
        history = makeCard(card, self.rng)
        t1 = time.monotonic()
        machine = Machine(self.cache, self.work, card, incoming=os.path.join(self.cache, "drill", "state"))
        try:
            controller = Controller(machine.sockets["printer"], random.Random(self.seed + 1), self.edgeAt,
                                    lambda: machine.send("edge %d\n" % self.delayUs))
            controller.start()
            started = time.monotonic()
            machine.send("start %d\n" % int(time.time() * 1000))

            def panicked():
                copyCard(card, cut)
                self.copied = True
            finished = False
            for line in machine.lines(timeout=20, panicked=panicked):
                if os.environ.get("DRILL_TRACE"):
                    log("%.3f %s" % (time.monotonic() - started, line))
                self.messages.append(line)
                finished = self.hear(line)
                if finished:
                    break
            self.timeline()
            if not finished:
                self.failures.append("the appliance did not finish (last lines: %s)" % self.messages[-3:])
                return
            if not self.copied:
                self.failures.append("the power was never cut")
                return
        finally:
            machine.kill()
        self.received = controller.received
        t2 = time.monotonic()
        self.judge(history, card, cut)
        if os.environ.get("DRILL_TRACE"):
            log("card %.2f s, machine %.2f s, judge %.2f s" % (t1 - t0, t2 - t1, time.monotonic() - t2))

    def hear(self, line):
        """Takes one line of the guest; True once the appliance has ended."""
        if line.startswith("agent finished ") or line.startswith("agent failed"):
            if line.startswith("agent failed"):
                self.failures.append(line)
            return True
        return False

    def timeline(self):
        """The times of the drill's steps, from the guest's lines: the lines
        of two processes come in the order they were written, not in the
        order of what they tell, so the watcher's steps are taken by their
        times, after the edge."""
        events = []
        for line in self.messages:
            words = line.split(" ", 3)
            if line.startswith("agent edge ") and len(words) == 4:
                self.times["edge"] = int(words[2])
                self.edgeMs = int(words[3])
            elif line.startswith("agent cut ") and len(words) == 3:
                self.times["cut"] = int(words[2])
            elif line.startswith("appliance ") and len(words) == 4:
                events.append((int(words[1]), words[2] + " " + words[3]))
        edge = self.times.get("edge")
        if edge is None:
            return
        steps = (("awake", 'shutMyGpio run val =  "0"'), ("synced", "umount "),
                 ("shutDown", "power lost, handed over "), ("flushed", "job record flushed"), ("stopped", "job "))
        for at, text in sorted(events):
            for name, start in steps:
                if at >= edge and name not in self.times and text.startswith(start):
                    self.times[name] = at
                    if name == "shutDown":
                        self.handedOver = int(text.split()[-1])

    def since(self, name):
        if name in self.times and "edge" in self.times:
            return (self.times[name] - self.times["edge"]) / 1000.0
        return None

    def judge(self, prefill, card, cut):
        # Everything the log was given: the earlier run's records, then what
        # the appliance left on the card once it had flushed its last record.
        final, _ = readCard(card, os.path.join(self.work, "final"))
        prefillSet = set(line.rstrip(b"\n") for line in prefill)
        history = [line.rstrip(b"\n") for line in prefill]
        for name, data in final.items():
            history += [r for r in records(data) if r not in prefillSet]
        self.historyTorn = [r for r in history if not RECORD.match(r) or b"\0" in r]
        edgeMs = getattr(self, "edgeMs", None)
        beforeEdge = [r in prefillSet or (recordMs(r) is not None and edgeMs is not None and recordMs(r) < edgeMs)
                      for r in history]

        files, strays = readCard(cut, os.path.join(self.work, "atcut"))
        self.filesAtCut = ", ".join("%s %d" % (name, len(data)) for name, data in files.items())
        self.fsck = fsckFindings(cut)
        onCard = []
        for name, data in files.items():
            onCard += records(data)
        positions = {}
        for i, r in enumerate(history):
            positions.setdefault(r, []).append(i)
        kept = [False] * len(history)
        torn = []
        p = 0
        first = None
        for r in onCard:
            match = next((i for i in positions.get(r, []) if i >= p), None)
            if match is None:
                torn.append((p if p < len(history) else None, r))
                p += 1
                continue
            first = match if first is None else first
            kept[match] = True
            p = match + 1
        # Records older than the oldest file on the card went out with
        # rotation only when the card holds all six older files.
        dropped = first if first is not None else 0
        rotatedOut = dropped if "%s.%d" % (LOG_NAME, OLDER_FILES) in files else 0
        self.lost = [i for i in range(rotatedOut, len(history)) if beforeEdge[i] and not kept[i]]
        self.torn = [r for i, r in torn if i is not None and beforeEdge[i]]
        self.tornAfter = [r for i, r in torn if i is None or not beforeEdge[i]]
        self.strays = strays
        self.cutAfterSync = "synced" in self.times and self.times["cut"] > self.times["synced"]
        self.cutBeforeOwnFlush = "stopped" not in self.times or self.times["cut"] < self.times["stopped"]
        older = [n for n in files if n != LOG_NAME]
        self.shortOlder = [n for n in older if len(files[n]) < MAX_SIZE]

        jobs = [c for _, c in self.received if c != STATUS_QUERY]
        self.afterStop = len(jobs) - self.handedOver if self.handedOver is not None and len(jobs) > self.handedOver else 0
        if self.handedOver is None:
            self.failures.append("the appliance never heard of the loss")
        if self.afterStop:
            self.failures.append("%d commands reached the controller after the stop: %s"
                                 % (self.afterStop, jobs[self.handedOver:][:3]))
        if self.cutAfterSync:
            if self.lost:
                self.failures.append("%d records raised before the edge are lost, first: %s"
                                     % (len(self.lost), history[self.lost[0]][:100]))
            if self.torn:
                self.failures.append("%d records raised before the edge are torn, first: %r"
                                     % (len(self.torn), self.torn[0][:100]))
            # Until the appliance flushes its last records nothing writes to
            # the card: a cut there must find it exactly as sync left it. A
            # cut in the middle of that later flush may find its writes half
            # done, which is told, not failed, as long as the records raised
            # before the edge are whole.
            complaints = self.failures if self.cutBeforeOwnFlush else self.notes
            if self.fsck:
                complaints.append("fsck.vfat: %s" % "; ".join(self.fsck[:4]))
            if self.shortOlder or strays:
                complaints.append("rotated files inconsistent: short %s, strays %s" % (self.shortOlder, strays))

    def summary(self):
        def ms(name):
            value = self.since(name)
            return "-" if value is None else "%.1f" % value
        state = "after sync returned" if getattr(self, "cutAfterSync", False) else "BEFORE sync returned"
        text = ("drill %d: seed %d; edge at command %d, cut %s ms after it (%s); awake %s, synced %s, "
                "sig_shutDown %s, stopped %s, its last record flushed %s ms; "
                % (self.number, self.seed, self.edgeAt, ms("cut"), state, ms("awake"), ms("synced"), ms("shutDown"),
                   ms("stopped"), ms("flushed")))
        if hasattr(self, "lost"):
            text += ("records before the edge lost %d, torn %d; torn after it %d; commands after the stop %d; "
                     "fsck %s" % (len(self.lost), len(self.torn), len(self.tornAfter), self.afterStop,
                                  "clean" if not self.fsck else "; ".join(self.fsck[:3])))
            if self.lost or self.torn or self.tornAfter or self.fsck:
                text += "; files at the cut: %s" % self.filesAtCut
        return text


# ---------------------------------------------------------------- the saved state

def job():
    """The print job: a square spiral of moves and extrusions, with line
    numbers, which tell the commands apart at the controller."""
    lines = ["; a square spiral, %d commands" % JOB_COMMANDS, "N1 G28"]
    for i in range(2, JOB_COMMANDS + 1):
        lines.append("N%d G1 X%.1f Y%.1f E%.3f F1800" % (i, 100 + (i % 40) * 2.5, 100 + (i // 40) * 2.5, i * 0.125))
    return "\n".join(lines) + "\n"


def buildInitrd(cache, appliance, agent):
    drill = os.path.join(cache, "drill")
    os.makedirs(drill, exist_ok=True)
    root = os.path.join(drill, "root")
    if os.path.exists(root):
        shutil.rmtree(root)
    os.makedirs(os.path.join(root, "vm", "modules"))
    shutil.copy(appliance, os.path.join(root, "vm", "appliance"))
    shutil.copy(agent, os.path.join(root, "vm", "drillAgent"))
    with open(os.path.join(root, "vm", "job.gcode"), "w") as f:
        f.write(job())
    modules = os.path.join(cache, "image", "lib", "modules")
    kernel = os.path.join(modules, os.listdir(modules)[0], "kernel")
    for m in MODULES:
        shutil.copy(os.path.join(kernel, m + ".ko"), os.path.join(root, "vm", "modules"))
    with open(os.path.join(root, "vm", "command"), "w") as f:
        f.write(COMMAND)
    libs = subprocess.run(["ldd", appliance], stdout=subprocess.PIPE, check=True).stdout.decode()
    for lib in re.findall(r"(?:=> )?(/\S+) \(0x", libs):
        target = os.path.join(root, lib.lstrip("/"))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copy(os.path.realpath(lib), target)
    archive = subprocess.run("cd %s && find . | cpio -o -H newc --quiet | gzip -1" % root, shell=True,
                             stdout=subprocess.PIPE, check=True).stdout
    with open(os.path.join(cache, "base.cpio.gz"), "rb") as f:
        base = f.read()
    with open(os.path.join(drill, "initrd"), "wb") as f:
        f.write(base + archive)
    shutil.rmtree(root)


def saveState(cache, key):
    """Boots the machine once, waits until its agent is ready, and saves
    the machine's whole state for the drills to start from."""
    drill = os.path.join(cache, "drill")
    keyFile, state = os.path.join(drill, "state.key"), os.path.join(drill, "state")
    if os.path.exists(keyFile) and open(keyFile).read() == key and os.path.exists(state):
        return
    work = tempfile.mkdtemp(dir=drill)
    card = os.path.join(work, "card.img")
    makeCard(card, random.Random(0))
    began = time.monotonic()
    machine = Machine(cache, work, card)
    try:
        ready = any(line == "agent ready" for line in machine.lines(timeout=120))
        if not ready:
            raise RuntimeError("the machine's agent never got ready; console: %s" % os.path.join(work, "console"))
        booted = time.monotonic() - began
        machine.qmp({"execute": "stop"})
        machine.qmp({"execute": "migrate", "arguments": {"uri": "exec:cat > %s.new" % state}})
        while machine.qmp({"execute": "query-migrate"}).get("status") not in ("completed", "failed"):
            time.sleep(0.05)
        if machine.qmp({"execute": "query-migrate"}).get("status") != "completed":
            raise RuntimeError("saving the machine's state failed")
    finally:
        machine.kill()
    os.rename(state + ".new", state)
    with open(keyFile, "w") as f:
        f.write(key)
    shutil.rmtree(work)
    log("machine state saved: booted in %.1f s, %d MB" % (booted, os.path.getsize(state) >> 20))


# ---------------------------------------------------------------- main

def median(values):
    return statistics.median(values) if values else float("nan")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("drills", type=int, nargs="?", default=5)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--cut-range-ms", type=float, default=300.0)
    parser.add_argument("--cache", required=True)
    parser.add_argument("--appliance", required=True)
    parser.add_argument("--agent", required=True)
    options = parser.parse_args()

    digest = hashlib.sha1()
    for path in (os.path.join(options.cache, "base.cpio.gz"), options.appliance, options.agent,
                 os.path.join(options.cache, "vmlinux")):
        with open(path, "rb") as f:
            digest.update(f.read())
    # The saved kernel knows the card's size from its boot.
    digest.update((COMMAND + " ".join(Machine.arguments(options.cache, "WORK", "CARD")) + str(CARD_MIB) + job()).encode())
    key = digest.hexdigest()
    drillDir = os.path.join(options.cache, "drill")
    keyFile = os.path.join(drillDir, "state.key")
    if not (os.path.exists(keyFile) and open(keyFile).read() == key):
        buildInitrd(options.cache, options.appliance, options.agent)
    saveState(options.cache, key)

    base = options.seed if options.seed is not None else random.SystemRandom().randrange(1, 10 ** 9)
    work = tempfile.mkdtemp(dir=drillDir)
    done = []
    began = time.monotonic()
    try:
        for n in range(options.drills):
            for name in os.listdir(work):
                path = os.path.join(work, name)
                shutil.rmtree(path) if os.path.isdir(path) else os.unlink(path)
            drill = Drill(n + 1, base + n, int(options.cut_range_ms * 1000), options.cache, work)
            drill.run()
            done.append(drill)
            log(drill.summary())
            for failure in drill.failures:
                log("  FAILED: " + failure)
            for note in drill.notes:
                log("  found: " + note)
        kept = os.path.join(drillDir, "card.img")
        if os.path.exists(os.path.join(work, "cut.img")):
            copyCard(os.path.join(work, "cut.img"), kept)
            log("card image: %s" % kept)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    elapsed = time.monotonic() - began
    report(done, elapsed)
    return 1 if any(d.failures for d in done) else 0


def report(done, elapsed):
    def figure(name):
        values = [d.since(name) for d in done if d.since(name) is not None]
        if not values:
            return "none"
        return "median %.1f ms, worst %.1f ms (%d drills)" % (median(values), max(values), len(values))
    log("under emulation (QEMU TCG, one processor), guest CLOCK_MONOTONIC:")
    for name, label in (("awake", "edge to watcher awake"), ("synced", "edge to sync returned"),
                        ("shutDown", "edge to sig_shutDown"), ("stopped", "edge to job stopped"),
                        ("flushed", "edge to the appliance's last record flushed")):
        log("  %s: %s" % (label, figure(name)))
    early = [d for d in done if hasattr(d, "lost") and not d.cutAfterSync]
    if early:
        log("  cuts before sync returned: %d; records raised before the edge lost %d, torn %d; torn after it %d; "
            "fsck findings in %d" % (len(early), sum(len(d.lost) for d in early), sum(len(d.torn) for d in early),
                                     sum(len(d.tornAfter) for d in early), sum(1 for d in early if d.fsck)))
    late = [d for d in done if getattr(d, "cutAfterSync", False)]
    if late:
        during = [d for d in late if not d.cutBeforeOwnFlush]
        log("  cuts after sync returned: %d; of them after the appliance began to flush its last records: %d, "
            "with fsck findings in %d" % (len(late), len(during), sum(1 for d in during if d.fsck)))
    log("  %d drills in %.0f s (%.1f s each)" % (len(done), elapsed, elapsed / max(1, len(done))))
    synced = [d.since("synced") for d in done if d.since("synced") is not None]
    log("drills: %d; lost before the edge: %d; torn: %d; commands after the stop: %d; "
        "edge to sync returned: median %.1f ms, worst %.1f ms"
        % (len(done), sum(len(d.lost) for d in late), sum(len(d.torn) for d in late),
           sum(getattr(d, "afterStop", 0) for d in done), median(synced), max(synced) if synced else float("nan")))


if __name__ == "__main__":
    sys.exit(main())
