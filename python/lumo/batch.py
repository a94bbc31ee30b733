"""Beautify photo files in parallel on Dask distributed.

    python3 -m lumo.batch IN... -o DIR [--workers N] [--scheduler ADDRESS [--connect-timeout S]] [settings]

Each input (a PNG or JPEG file, or a folder of them) is beautified into DIR under its own file name, by a
LocalCluster of N worker processes (default: one per core), or by the workers of an existing cluster when
--scheduler names its scheduler. --workers 0 runs the files in this process, without Dask.

Every worker process makes one engine and reuses it for all its files. A result is written to a temporary
file in DIR, created exclusively, and renamed over the final name only when complete, so DIR never holds a
half-written photo. An output newer than its input counts as done and is skipped on a rerun (--force
redoes it). A file that fails is reported and the rest go on; the exit status is then 1. A file above the
library's frame limits (read from its header) or above 256 MiB is refused before it is decoded.

Ctrl-C closes the cluster (a file being written is finished or removed), counts the files this run wrote
and exits with status 130; a second Ctrl-C stops waiting for the workers and kills them.
"""

import argparse
import contextlib
import os
import signal
import struct
import sys
import tempfile
import time

import lumo

IMAGE_EXTENSIONS = (".png", ".jpg", ".jpeg")
TEMPORARY_MARK = ".lumo-tmp-"
MAX_FILE_BYTES = 256 << 20  # as the tool: larger files are refused before they are read
PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"

EXIT_FAILED = 1
EXIT_USAGE = 2
EXIT_INTERRUPTED = 130

# One engine per worker process (per engine kind asked for), made by the first file and kept.
_beautifiers = {}


def _beautifier(engine):
    if engine not in _beautifiers:
        _beautifiers[engine] = lumo.Beautifier(engine=engine)
    return _beautifiers[engine]


def _frame_size(data):
    """(width, height) from the header of a PNG or JPEG file's bytes, without decoding it."""
    if data.startswith(PNG_SIGNATURE):
        if data[12:16] == b"IHDR" and len(data) >= 24:
            return struct.unpack(">II", data[16:24])
    elif data.startswith(b"\xff\xd8\xff"):
        position = 2
        while position + 4 <= len(data) and data[position] == 0xFF:
            marker = data[position + 1]
            if marker == 0xFF:  # fill byte
                position += 1
            elif marker == 0x01 or 0xD0 <= marker <= 0xD7:  # markers without a length
                position += 2
            elif marker in (0xD9, 0xDA):  # end of image or scan data before any frame header
                break
            elif 0xC0 <= marker <= 0xCF and marker not in (0xC4, 0xC8, 0xCC):  # SOFn (not DHT, JPG, DAC)
                if position + 9 <= len(data):
                    height, width = struct.unpack(">HH", data[position + 5:position + 9])
                    return width, height
                break
            else:
                position += 2 + struct.unpack(">H", data[position + 2:position + 4])[0]
    else:
        raise ValueError("not a PNG or JPEG image")
    raise ValueError("cannot read the image size from its header")


def _read(path):
    import cv2
    import numpy as np

    with open(path, "rb") as file:
        # The size is checked before reading and again after, for a file that grows meanwhile.
        if os.fstat(file.fileno()).st_size > MAX_FILE_BYTES:
            raise ValueError("image files above 256 MiB are refused")
        data = file.read(MAX_FILE_BYTES + 1)
    if len(data) > MAX_FILE_BYTES:
        raise ValueError("image files above 256 MiB are refused")
    # The library's frame limits, from the header: a huge frame is refused before it is allocated.
    lumo.check_frame_size(*_frame_size(data))
    buffer = np.frombuffer(data, np.uint8)
    if data.startswith(PNG_SIGNATURE):
        # Alpha is kept (the engines carry it through); anything else becomes 8-bit BGR.
        image = cv2.imdecode(buffer, cv2.IMREAD_UNCHANGED)
        if image is not None and (image.dtype != np.uint8 or image.ndim != 3 or image.shape[2] not in (3, 4)):
            image = cv2.imdecode(buffer, cv2.IMREAD_COLOR)
    else:
        # IMREAD_COLOR turns the photo upright by its EXIF orientation, as viewers show it; the output is
        # written without EXIF, so it is not turned twice.
        image = cv2.imdecode(buffer, cv2.IMREAD_COLOR)
    if image is None:
        raise ValueError("cannot decode the image")
    return image


def _write_atomically(path, image):
    import cv2

    extension = os.path.splitext(path)[1].lower()
    if extension in (".jpg", ".jpeg") and image.shape[2] == 4:
        image = cv2.cvtColor(image, cv2.COLOR_BGRA2BGR)  # JPEG has no alpha
    encoded, data = cv2.imencode(extension, image)
    if not encoded:
        raise ValueError("cannot encode the result as " + extension)
    folder, name = os.path.split(path)
    descriptor, temporary = tempfile.mkstemp(prefix="." + name + TEMPORARY_MARK, dir=folder or ".")
    try:
        with os.fdopen(descriptor, "wb") as file:
            file.write(data.tobytes())
            file.flush()
            os.fsync(file.fileno())
        os.chmod(temporary, 0o644)  # mkstemp makes it 0600; a photo is as readable as any other file
        os.replace(temporary, path)
    except BaseException:
        try:
            os.unlink(temporary)
        except FileNotFoundError:
            pass
        raise


def beautify_file(source, target, engine, settings):
    """Beautifies one photo into `target`. Runs on a worker; returns (engine name, seconds of work)."""
    start = time.perf_counter()
    image = _read(source)
    beautifier = _beautifier(engine)
    for name, value in settings.items():
        setattr(beautifier, name, value)
    result = beautifier.process(image)
    _write_atomically(target, result)
    return beautifier.engine, time.perf_counter() - start


def _outcome(source, target, engine, settings):
    """beautify_file with its failure as a value, so that one bad file does not fail the batch."""
    try:
        return "done", beautify_file(source, target, engine, settings)
    except Exception as error:  # noqa: BLE001 - any failure of one file is reported, the rest go on
        return "failed", "{}: {}".format(type(error).__name__, error)


class Progress:
    """A bar on stderr when it is a terminal, else a line at every tenth of the work."""

    def __init__(self, total, stream=sys.stderr):
        self.total = total
        self.stream = stream
        self.tty = stream.isatty()
        self.done = 0
        self.failed = 0
        self.start = time.perf_counter()
        self.next_line = 0

    def step(self, failed=False):
        self.done += 1
        self.failed += failed
        rate = self.done / max(time.perf_counter() - self.start, 1e-9)
        if self.tty:
            width = 30
            filled = width * self.done // max(self.total, 1)
            self.stream.write("\r[{}{}] {}/{} {:.1f} frames/s{}".format(
                "#" * filled, "." * (width - filled), self.done, self.total, rate,
                " ({} failed)".format(self.failed) if self.failed else ""))
            if self.done == self.total:
                self.stream.write("\n")
        elif self.done >= self.next_line or self.done == self.total:
            self.stream.write("lumo.batch: {}/{} files, {:.1f} frames/s\n".format(self.done, self.total, rate))
            self.next_line = self.done + max(1, self.total // 10)
        self.stream.flush()

    def message(self, text):
        if self.tty:
            self.stream.write("\r\033[K")
        self.stream.write(text + "\n")
        self.stream.flush()


def _inputs(paths):
    """The photo files named, folders expanded to their PNG and JPEG files (sorted)."""
    files = []
    for path in paths:
        if os.path.isdir(path):
            files.extend(sorted(os.path.join(path, name) for name in os.listdir(path)
                                if name.lower().endswith(IMAGE_EXTENSIONS) and not name.startswith(".")))
        else:
            files.append(path)
    return files


def _plan(inputs, output_dir, force):
    """Splits the inputs into (work, skipped, refused): work and skipped are (source, target) pairs,
    refused are (source, reason)."""
    work, skipped, refused, claimed = [], [], [], {}
    for source in inputs:
        target = os.path.join(output_dir, os.path.basename(source))
        if not os.path.isfile(source):
            refused.append((source, "no such file"))
        elif not source.lower().endswith(IMAGE_EXTENSIONS):
            refused.append((source, "not a .png, .jpg or .jpeg file"))
        elif os.path.realpath(target) in claimed:
            refused.append((source, "same file name as " + claimed[os.path.realpath(target)]))
        elif os.path.exists(target) and os.path.samefile(source, target):
            refused.append((source, "refusing to overwrite the input (choose another -o)"))
        else:
            claimed[os.path.realpath(target)] = source
            if not force and os.path.exists(target) and os.stat(target).st_mtime_ns >= os.stat(source).st_mtime_ns:
                skipped.append((source, target))
            else:
                work.append((source, target))
    return work, skipped, refused


def _remove_stale_temporaries(pairs):
    """Temporary files of a worker that died while writing (a finished run has no writer left)."""
    for _, target in pairs:
        folder, name = os.path.split(target)
        prefix = "." + name + TEMPORARY_MARK
        for entry in os.listdir(folder or "."):
            if entry.startswith(prefix):
                try:
                    os.unlink(os.path.join(folder, entry))
                except FileNotFoundError:
                    pass


def _identity(path):
    """What tells a file written now from the one there before (a rename brings a new inode), or None."""
    try:
        status = os.stat(path)
    except FileNotFoundError:
        return None
    return status.st_ino, status.st_mtime_ns


def _run_here(work, engine, settings, report):
    for source, target in work:
        report(source, *_outcome(source, target, engine, settings))


def _worker_environment():
    """Dask's worker environment without MALLOC_TRIM_THRESHOLD_. Setting it turns off glibc's adaptive
    mmap threshold, so every frame-sized buffer (decoded image, result, encoded file) becomes a fresh mmap
    and page faults; that made a worker's files a third slower than the same work in a plain process."""
    import dask

    environment = dict(dask.config.get("distributed.nanny.pre-spawn-environ", default={}) or {})
    environment.pop("MALLOC_TRIM_THRESHOLD_", None)
    return environment


class SchedulerUnreachable(Exception):
    """--scheduler names no scheduler that answers."""


def _cause(error):
    """The deepest message in a chain of errors: Dask reports a refused connection as a timeout."""
    message = str(error)
    while error is not None:
        message = (error.strerror if isinstance(error, OSError) and error.strerror else str(error)) or message
        error = error.__cause__ or error.__context__
    return message


@contextlib.contextmanager
def _sigint_ignored():
    """Ctrl-C at a terminal reaches the whole process group, and a worker's KeyboardInterrupt only prints
    tracebacks: this process alone takes it and closes the cluster. Worker processes started meanwhile
    inherit the ignored SIGINT (a Ctrl-C during the cluster's start is lost)."""
    previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        yield
    finally:
        signal.signal(signal.SIGINT, previous)


def _kill_workers(signum=None, frame=None):
    """SIGINT while the local cluster closes after Ctrl-C: its worker processes are this process's children."""
    import multiprocessing

    for child in multiprocessing.active_children():
        child.kill()


def _close(client, cluster, interrupted):
    """Closes the client and the local cluster, whose workers finish or drop the file they are at. After
    Ctrl-C, Dask's logs of the cut-off work are noise, and a further Ctrl-C kills the workers rather than
    wait for them."""
    import logging

    if interrupted:
        logging.disable(logging.CRITICAL)
        signal.signal(signal.SIGINT, _kill_workers)
    try:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()
    finally:
        logging.disable(logging.NOTSET)


def _run_on_dask(work, engine, settings, report, workers, scheduler, connect_timeout):
    import logging

    import dask
    from distributed import Client, LocalCluster, as_completed

    client = cluster = None
    interrupted = False
    try:
        if scheduler:
            try:
                client = Client(scheduler, timeout=connect_timeout)
            except (OSError, ValueError) as error:
                raise SchedulerUnreachable("cannot reach the scheduler at {}: {}".format(scheduler, _cause(error)))
        else:
            # One thread per worker process: each engine already spreads a frame over the cores.
            with dask.config.set({"distributed.nanny.pre-spawn-environ": _worker_environment()}), _sigint_ignored():
                # Dask's own log lines would break into the progress; every file's outcome is reported here.
                cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                       dashboard_address=None, silence_logs=logging.CRITICAL)
            client = Client(cluster)
        futures = {}
        for source, target in work:
            # pure=False: a rerun after an edit of the input must not reuse an old result.
            future = client.submit(_outcome, source, target, engine, settings, pure=False)
            futures[future] = source
        for future in as_completed(futures):
            source = futures[future]
            try:
                status, detail = future.result()
            except Exception as error:  # noqa: BLE001 - e.g. KilledWorker after repeated worker deaths
                status, detail = "failed", "{}: {}".format(type(error).__name__, error)
            report(source, status, detail)
    except KeyboardInterrupt:
        interrupted = True
        raise
    finally:
        _close(client, cluster, interrupted)


def _parser():
    ranges = lumo.SETTING_RANGES
    defaults = lumo.DEFAULTS

    def ranged(name):
        low, high = ranges[name]
        return "{:g}..{:g} (default: {:g})".format(low, high, defaults[name])

    parser = argparse.ArgumentParser(
        prog="python3 -m lumo.batch",
        description="Beautify photos (PNG, JPEG) in parallel on Dask distributed; each result goes to DIR under "
                    "the input's own file name.")
    parser.add_argument("inputs", nargs="+", metavar="IN", help="photo files, or folders of them")
    parser.add_argument("-o", "--output", required=True, metavar="DIR", help="folder for the results (made if missing)")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1, metavar="N",
                        help="worker processes of the local cluster (default: one per core; 0: no Dask, this process)")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="use an existing cluster, e.g. tcp://10.0.0.5:8786, instead of a local one")
    parser.add_argument("--connect-timeout", type=float, default=10, metavar="SECONDS",
                        help="give up on an unreachable --scheduler after this long (default: 10)")
    parser.add_argument("--force", action="store_true", help="redo files whose output is already newer than the input")
    parser.add_argument("--engine", default="auto", choices=("auto", "gl", "cpu"), help="default: auto")
    # The settings stay text here: the library reads them as the tool reads its options.
    parser.add_argument("--mask", default=str(defaults["mask"]),
                        help="passes: names polish,whiten,skin-whiten,sharpen joined by ',' or '+', or a number "
                             "(default: 7)")
    parser.add_argument("--preset", default=str(defaults["preset"]), help="colour preset 0..13 (default: 0)")
    for name in ("polish_step", "polish_factor", "whiten", "sharpen", "skin_whiten"):
        parser.add_argument("--" + name.replace("_", "-"), default="{:g}".format(defaults[name]), help=ranged(name))
    return parser


def main(argv=None):
    parser = _parser()
    options = parser.parse_args(argv)
    try:
        settings = lumo.check_settings(mask=options.mask, preset=options.preset, polish_step=options.polish_step,
                                       polish_factor=options.polish_factor, whiten=options.whiten,
                                       sharpen=options.sharpen, skin_whiten=options.skin_whiten)
    except ValueError as error:
        parser.error(str(error))
    if options.workers < 0:
        parser.error("--workers wants 0 or more")
    if not options.connect_timeout > 0:
        parser.error("--connect-timeout wants a number of seconds above 0")
    try:
        os.makedirs(options.output, exist_ok=True)
    except OSError as error:
        print("lumo.batch: {}: {}".format(options.output, error.strerror), file=sys.stderr)
        return EXIT_FAILED

    work, skipped, refused = _plan(_inputs(options.inputs), options.output, options.force)
    for source, reason in refused:
        print("lumo.batch: {}: {}".format(source, reason), file=sys.stderr)
    progress = Progress(len(work))
    counts = {"done": 0, "failed": len(refused)}
    engines = set()

    def report(source, status, detail):
        counts[status] += 1
        if status == "done":
            engines.add(detail[0])
        else:
            progress.message("lumo.batch: {}: {}".format(source, detail))
        progress.step(failed=status != "done")

    before = {target: _identity(target) for _, target in work}
    sigint = signal.getsignal(signal.SIGINT)
    start = time.perf_counter()
    interrupted = False
    try:
        if not work:
            pass
        elif options.workers == 0 and not options.scheduler:
            _run_here(work, options.engine, settings, report)
        else:
            _run_on_dask(work, options.engine, settings, report, options.workers, options.scheduler,
                         options.connect_timeout)
    except SchedulerUnreachable as error:
        print("lumo.batch: {}".format(error), file=sys.stderr)
        return EXIT_FAILED
    except KeyboardInterrupt:
        interrupted = True
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # what is left is brief: another Ctrl-C must not cut the report
    finally:
        _remove_stale_temporaries(work)
    if interrupted:
        # A worker may have written a file whose result was never reported: the folder is the record.
        counts["done"] = sum(_identity(target) != before[target] for _, target in work)
    seconds = time.perf_counter() - start
    print("lumo.batch: beautified {} files ({} failed, {} skipped) in {:.1f} s: {:.1f} frames/s{}".format(
        counts["done"], counts["failed"], len(skipped), seconds, counts["done"] / max(seconds, 1e-9),
        ", engine " + "/".join(sorted(engines)) if engines else ""), file=sys.stderr)
    if interrupted:
        print("lumo.batch: interrupted; finished files are complete, the rest are not written", file=sys.stderr)
        signal.signal(signal.SIGINT, sigint)
        return EXIT_INTERRUPTED
    return EXIT_FAILED if counts["failed"] else 0


if __name__ == "__main__":
    # Run as lumo.batch, not __main__: the workers then import the task functions by name and share this
    # module's engine across tasks, instead of receiving a copy of them (and of _beautifiers) with each task.
    from lumo import batch

    sys.exit(batch.main())
