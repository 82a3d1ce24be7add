#!/usr/bin/env python3
"""Cuts off a real file system under load, again and again, and looks at what it kept.

Usage: tests/evidence/real_disk.py BUILD      ZON_EVIDENCE_SECONDS tells how long, ZON_EVIDENCE_SEED with which history

An image with ext4 on a loop device is written to by real_disk_worker. Either the file system is shut down by its own
call, without its journal's last part or with it, and mounted again; or the writer is stopped and the image copied, which
holds what has reached the device by then, and the copy is mounted. Then real_disk_worker checks.

The rule: where the machine does not allow this, that is said, and the exit code is 77. Whatever was mounted is unmounted.
"""
import fcntl
import hashlib
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

NOT_ALLOWED = 77
SHUTDOWN_CALL = 0x8004587D  # _IOR('X', 125, __u32), as ext4 and XFS know it
WITH_JOURNAL, WITHOUT_JOURNAL = 1, 2
IMAGE_BYTES = 48 << 20
MODES = ("ordered", "journal", "writeback")
MOST_COPIES = 5


class Complaint(Exception):
    """What was found and must not be."""


class NotAllowed(Exception):
    """Why this machine does not let it be done."""


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise NotAllowed(f"real file system: {' '.join(command[:3])} failed: {done.stderr.strip()}")


class Mounted:
    """An image with ext4, mounted as long as the object's block lasts."""

    def __init__(self, image, place, mode):
        self.image, self.place, self.mode = image, place, mode

    def __enter__(self):
        self.place.mkdir(exist_ok=True)
        run("mount", "-t", "ext4", "-o", f"loop,data={self.mode}", str(self.image), str(self.place))
        return self.place

    def __exit__(self, *_):
        for _ in range(50):
            if subprocess.run(["umount", str(self.place)], capture_output=True, check=False).returncode == 0:
                return
            time.sleep(0.1)
        subprocess.run(["umount", "--lazy", str(self.place)], check=False)


class History:
    """One file's life over many cuts: each part of it has a seed of its own and goes on from what was found last."""

    def __init__(self, worker, folder, seed):
        self.worker, self.folder, self.seed = worker, folder, seed
        self.state = folder / "state"
        self.state.touch()
        self.cuts = self.acknowledged = 0

    def told(self):
        return self.folder / f"acknowledged.{self.seed}"

    def write(self, place):
        self.seed += 1
        self.told().touch()
        return subprocess.Popen([self.worker, "write", place / "site", str(self.seed), self.state, self.told()])

    def check(self, place, what, keeps=True):
        state, told = self.state, self.told()
        if not keeps:
            state = shutil.copy(self.state, self.folder / "state.copy")
        done = subprocess.run([self.worker, "check", place / "site", str(self.seed), state, told],
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise Complaint(f"seed {self.seed}, {what}: {done.stdout.strip()} {done.stderr.strip()}")
        self.cuts += 1
        self.acknowledged += told.stat().st_size


def shut_down(place, how):
    descriptor = os.open(place, os.O_RDONLY)
    try:
        fcntl.ioctl(descriptor, SHUTDOWN_CALL, how.to_bytes(4, sys.byteorder))
    except OSError as error:
        raise NotAllowed(f"real file system: the shutdown call failed: {error}") from error
    finally:
        os.close(descriptor)


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha1").hexdigest()


def steady_copy(image, copy):
    """Whether the image stood still while it was copied: else the copy is of no one moment."""
    for _ in range(MOST_COPIES):
        before = digest(image)
        shutil.copyfile(image, copy)
        if digest(copy) == before == digest(image):
            return True
    return False


def cut_by_copy(history, image, place, folder, mode, dice):
    writer = history.write(place)
    try:
        time.sleep(dice.uniform(0.05, 0.5))
        writer.send_signal(signal.SIGSTOP)
        copy = folder / "copy"
        if steady_copy(image, copy):
            with Mounted(copy, folder / "copied", mode) as copied:
                history.check(copied, f"copied, data={mode}", keeps=False)
    finally:
        writer.kill()
        writer.wait()
    # All processes gone, the machine goes on.
    history.check(place, f"killed, data={mode}")


def cut_by_shutdown(history, image, place, mode, dice):
    how = dice.choice((WITH_JOURNAL, WITHOUT_JOURNAL))
    with Mounted(image, place, mode):
        writer = history.write(place)
        try:
            time.sleep(dice.uniform(0.05, 0.5))
            shut_down(place, how)
        finally:
            try:
                writer.wait(timeout=1)
            except subprocess.TimeoutExpired:
                writer.kill()
                writer.wait()
    with Mounted(image, place, mode):
        history.check(place, f"shut down {'with' if how == WITH_JOURNAL else 'without'} its journal, data={mode}")


def live(worker, folder, seed, seconds):
    dice = random.Random(seed)
    end = time.monotonic() + seconds
    cuts = acknowledged = 0
    while cuts == 0 or time.monotonic() < end:
        mode = MODES[seed % len(MODES)]
        image, place = folder / "image", folder / "mounted"
        with open(image, "wb") as file:
            file.truncate(IMAGE_BYTES)
        run("mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", str(image))
        with Mounted(image, place, mode):
            (place / "site").mkdir()
        history = History(worker, Path(tempfile.mkdtemp(dir=folder)), seed * 1000)
        for _ in range(12):
            if dice.random() < 0.6:
                cut_by_shutdown(history, image, place, mode, dice)
            else:
                with Mounted(image, place, mode):
                    cut_by_copy(history, image, place, folder, mode, dice)
            if time.monotonic() >= end:
                break
        cuts += history.cuts
        acknowledged += history.acknowledged
        seed += 1
    return cuts, acknowledged


def require_means(worker):
    if os.geteuid() != 0:
        raise NotAllowed("real file system: only root may mount an image here")
    if not os.path.exists("/dev/loop-control"):
        raise NotAllowed("real file system: there are no loop devices here")
    for tool in ("mkfs.ext4", "mount", "umount"):
        if shutil.which(tool) is None:
            raise NotAllowed(f"real file system: there is no {tool} here")
    if not worker.exists():
        raise NotAllowed(f"real file system: {worker.name} is not built")


def main():
    worker = Path(sys.argv[1]).resolve() / "bin" / "real_disk_worker"
    seconds = float(os.environ.get("ZON_EVIDENCE_SECONDS", "10"))
    seed = int(os.environ.get("ZON_EVIDENCE_SEED", "1"))
    try:
        require_means(worker)
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        with tempfile.TemporaryDirectory(prefix="real-disk.", dir=memory) as name:
            cuts, acknowledged = live(worker, Path(name), seed, seconds)
    except NotAllowed as why:
        print(why)
        return NOT_ALLOWED
    except Complaint as complaint:
        print(complaint)
        return 1
    print(f"seed {seed}, cuts {cuts}, acknowledged deeds looked for {acknowledged}")
    if told := os.environ.get("ZON_EVIDENCE"):
        with open(told, "a", encoding="utf-8") as file:
            for what, count in (("real.cuts", cuts), ("real.acknowledged", acknowledged)):
                file.write(json.dumps({"what": what, "count": count, "seed": seed}) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
