"""A machine under QEMU, without KVM: its serial console as lines, its power by processes."""

import json
import pathlib
import re
import socket
import subprocess
import threading
import time


class Failure(Exception):
    """A case that did not go as it has to."""


class Console:
    """What a machine writes to its serial console, line by line; kept in a log with the seconds since the power-on."""

    def __init__(self, log: pathlib.Path):
        self._start = time.monotonic()
        self._log = log.open("w", encoding="utf-8")
        self._changed = threading.Condition()
        self._ended = False
        self.lines: list[str] = []

    def follow(self, stream):
        """Takes the lines of a stream until it ends."""
        for raw in iter(stream.readline, b""):
            self.add(re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\r", "", raw.decode("utf-8", "replace")).rstrip("\n"))

    def add(self, line: str):
        print(f"{time.monotonic() - self._start:8.2f} {line}", file=self._log, flush=True)
        with self._changed:
            self.lines.append(line)
            self._changed.notify_all()

    def end(self):
        with self._changed:
            self._ended = True
            self._changed.notify_all()
        self._log.close()

    def wait_for(self, pattern: str, seconds: float, begin: int = 0, while_seen: str = "(?!)") -> int:
        """The number of the first line from `begin` on that the pattern is found in. Raises Failure when there is none in time,
        which begins anew with each line that `while_seen` is found in."""
        expression, renewal = re.compile(pattern), re.compile(while_seen)
        deadline = time.monotonic() + seconds
        at = begin
        with self._changed:
            while True:
                for at in range(at, len(self.lines)):
                    if expression.search(self.lines[at]):
                        return at
                    if renewal.search(self.lines[at]):
                        deadline = time.monotonic() + seconds
                at = max(at, len(self.lines))
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    why = "the machine ended" if self._ended else f"{seconds:.0f} s passed"
                    raise Failure(f"{why} without a line like '{pattern}'")
                self._changed.wait(left)

    def found(self, pattern: str, begin: int = 0, end: int | None = None) -> list[str]:
        """The lines so far, from `begin` to before `end`, that the pattern is found in."""
        expression = re.compile(pattern)
        with self._changed:
            return [line for line in self.lines[begin:end] if expression.search(line)]


class Machine:
    """Under power from its construction to the end of the with statement. Drives are QEMU's -drive values.

    Each reset, whoever asks for it, is a new process of QEMU. With a power cut what the system had not yet written to its
    disks is lost, and of what it had not flushed a part, as QEMU keeps tables of qcow2 files in its memory. A second boot in
    one process is slower, too."""

    def __init__(self, name: str, directory: pathlib.Path, drives: list[str], options=(), memory=512, cpus=1):
        self._command = [
            "setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64", "-name", name, "-accel", "tcg,thread=multi", "-cpu", "max",
            "-smp", str(cpus), "-m", str(memory), "-nodefaults", "-no-user-config", "-display", "none", "-serial", "stdio",
            "-no-reboot", *options,
        ]  # fmt: skip
        for drive in drives:
            self._command += ["-drive", f"if=virtio,{drive}"]
        self.console = Console(directory / f"{name}.serial.log")
        self._started = threading.Condition()
        self._starts = 0
        self._on = True
        self._snapshot: str | None = None
        self._keeper = threading.Thread(target=self._keep_running)
        self._keeper.start()
        with self._started:
            self._started.wait_for(lambda: self._starts)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with self._started:
            self._on = False
            self._process.kill()
        self._keeper.join()

    def _keep_running(self):
        while self._start():
            self.console.follow(self._process.stdout)
            status = self._process.wait()
            if status not in (0, -9):  # a reset of the guest, or a power cut
                self.console.add(f"QEMU ended with status {status}")
                break
        self.console.end()

    def _start(self) -> bool:
        with self._started:
            if not self._on:
                return False
            control, monitor = socket.socketpair()
            command = self._command + ["-chardev", f"socket,id=qmp,fd={monitor.fileno()}", "-mon", "chardev=qmp,mode=control"]
            if self._snapshot:
                command += ["-loadvm", self._snapshot]
            self._process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                pass_fds=[monitor.fileno()],
            )  # fmt: skip
            monitor.close()
            self._control = control.makefile("rwb", buffering=0)
            control.close()
            self._greeted = False
            self._snapshot = None
            self._starts += 1
            self._started.notify_all()
            return True

    def cut_power(self, snapshot: str | None = None):
        """And back on, with the snapshot's disks and memory if one is named."""
        with self._started:
            starts = self._starts
            self._snapshot = snapshot
            self._process.kill()
            self._started.wait_for(lambda: self._starts > starts)

    def monitor(self, command: str):
        """A command of QEMU's monitor, which says nothing when it went well. Waits until the machine runs."""
        if not self._greeted:
            self._control.readline()
            self._order("qmp_capabilities")
            self._greeted = True
        answer = self._order("human-monitor-command", **{"command-line": command})
        if answer.strip():
            raise Failure(f"{command}: {answer.strip()}")

    def _order(self, what: str, **arguments):
        self._control.write(json.dumps({"execute": what, "arguments": arguments}).encode() + b"\n")
        while line := self._control.readline():
            answer = json.loads(line)
            if "error" in answer:
                raise Failure(f"{what}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]
        raise Failure(f"{what}: the machine ended")
