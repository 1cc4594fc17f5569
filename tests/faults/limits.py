#!/usr/bin/python3
"""The program under the limits of a machine: limits.py PROGRAM kill|memory|disk [COUNT]

The jobs of campaign.py, COUNT times each:
kill    killed at a random moment. Every result file is as it was before or whole, and the same job, run again, leaves what
        an undisturbed one does.
memory  with address space for COUNT sizes, from what the program needs to start to what the job needs.
disk    on a file system with room for COUNT sizes, from none to what the job needs. Wants the right to mount one.
Memory and disk: no signal, no hang, no temporary file left, result files old or whole, code 0 only with all outputs.
"""
import os
import pathlib
import random
import resource
import subprocess
import sys
import tempfile
import time

import campaign

MEGABYTE = 2 ** 20
PAGE = 4096
CANNOT = 77  # what the test runner takes for "could not be tried"


def kills(job, count):
    draw = random.Random(11)
    begun = time.time()
    job.whole()
    length = time.time() - begun
    for _ in range(count):
        job.prepare()
        child = subprocess.Popen([job.program, "-q", *job.words], cwd=job.folder, env=job.environment, stdin=subprocess.DEVNULL,
                                 stdout=subprocess.DEVNULL)
        moment = draw.uniform(0, 1.1 * length)
        time.sleep(moment)
        child.kill()
        code = child.wait()
        wrong = job.broken(job.held(), code)
        for name in os.listdir(job.folder):
            if ".part" in name:  # nobody was left to remove it
                (job.folder / name).unlink()
        if os.listdir(job.scratch):
            wrong.append(f"leaves {os.listdir(job.scratch)}")
        code, told, held = job.run()
        wrong += [f"run again: {name} is another" for name in held if held[name] != job.undisturbed[name]]
        yield f"killed after {moment:.4f} s", wrong


def starts(program, bytes):
    limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (bytes, bytes))
    return subprocess.run([program, "--version"], preexec_fn=limit, stdin=subprocess.DEVNULL, capture_output=True).returncode == 0


def memory(job, count):
    job.whole()
    least = next(size for size in range(MEGABYTE, 512 * MEGABYTE, MEGABYTE // 4) if starts(job.program, size))
    limited = lambda bytes: {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_AS, (bytes, bytes))}
    enough = least
    while job.run(**limited(enough))[0] != 0:
        enough += MEGABYTE
    for n in range(count):
        bytes = least + (enough - least) * n // count // PAGE * PAGE
        yield f"{bytes // 1024} KB of memory", job.faulty(**limited(bytes))


def disk(job, count):
    """The job's folders are on a small file system, which a file fills up."""
    filler = job.folder.parent / "filler"

    def leave(bytes):
        filler.unlink(missing_ok=True)
        about = os.statvfs(job.folder)
        fill = about.f_bavail * about.f_frsize - bytes
        assert fill >= 0, "the file system is too small"
        filler.write_bytes(b"\0" * fill)

    job.whole()
    enough = 0
    while True:
        job.prepare()
        leave(enough)
        code = job.run(prepared=True)[0]
        filler.unlink()
        if code == 0:
            break
        enough += 16 * PAGE
    for n in range(count):
        job.prepare()
        room = enough * n // count // PAGE * PAGE
        leave(room)
        yield f"{room // 1024} KB of room", job.faulty(prepared=True)
        filler.unlink()


def smalldisk(place):
    """A file system of a few megabytes at `place`, or an attempt as the root of a space of names of its own."""
    done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=6m", "kdr3", str(place)], capture_output=True, text=True)
    if done.returncode == 0:
        return
    if os.environ.get("KDR3_UNSHARED") is None:
        done = subprocess.run(["unshare", "-rm", sys.executable, *sys.argv], env={**os.environ, "KDR3_UNSHARED": "1"})
        if done.returncode in (0, 1):
            sys.exit(done.returncode)
    print("no file system can be mounted here: not tried")
    sys.exit(CANNOT)


def main(program, kind, count=40):
    program = str(pathlib.Path(program).resolve())
    tried = failed = 0
    with tempfile.TemporaryDirectory() as name:
        holder = pathlib.Path(name)
        if kind == "disk":
            smalldisk(holder)
        try:
            for folder in ("work", "scratch"):
                (holder / folder).mkdir()
            campaign.makestudy(holder / "work")
            for name in campaign.JOBS:
                job = campaign.Job(program, None, holder, name)
                if name in campaign.LIBRARIES and b"without the libraries" in job.run()[1]:
                    continue
                for what, wrong in {"kill": kills, "memory": memory, "disk": disk}[kind](job, int(count)):
                    tried += 1
                    failed += bool(wrong)
                    if wrong and failed <= 40:
                        print(f"{name}, {what}: {'; '.join(wrong)}", flush=True)
                print(f"{name}: {tried} so far", flush=True)
                if name == "construction":
                    job.whole()  # the others need its MDM file
        finally:
            if kind == "disk":
                subprocess.run(["umount", str(holder)], check=False)
    print(f"{kind}: {tried} tried, {failed} of them with a finding")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
