"""Beautify photo and video files in parallel on Dask distributed.

    python3 -m lumo.batch IN... -o DIR [--workers N] [--scheduler ADDRESS [--connect-timeout S]] [settings]

Each input (a PNG or JPEG file, a video file, or a folder of them) is beautified into DIR under its own file
name, by a LocalCluster of N worker processes (default: one per core), or by the workers of an existing
cluster when --scheduler names its scheduler. --workers 0 runs the files in this process, without Dask.

A video is split at keyframes into segments of about --segment-seconds by stream copy; each segment is one
task that runs lumo-beautify on it; the segments are joined by stream copy with the source's audio muxed in
once (lumo.video). Finished segments wait in a work folder beside the output until the join succeeds, so a
rerun redoes only what is missing.

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
import shutil
import signal
import struct
import sys
import tempfile
import time

import lumo
from lumo import video

IMAGE_EXTENSIONS = (".png", ".jpg", ".jpeg")
TEMPORARY_MARK = ".lumo-tmp-"
MAX_FILE_BYTES = 256 << 20  # as the tool: larger files are refused before they are read
PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"

# Long enough that a segment's fixed costs (starting the tool and the encoder, the split and the join) stay
# within a percent or two of its work, short enough that 16 workers share an hour's video evenly and that
# a crash loses little (docs/python.md has the measurements).
DEFAULT_SEGMENT_SECONDS = 30

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


def _clock(seconds):
    seconds = int(seconds + 0.5)
    return "{}:{:02d}:{:02d}".format(seconds // 3600, seconds // 60 % 60, seconds % 60) if seconds >= 3600 \
        else "{}:{:02d}".format(seconds // 60, seconds % 60)


class Progress:
    """One bar over every frame of the batch (a photo is one frame) on stderr when it is a terminal, else a
    line at every tenth of the work. A video's frames join the total when its segments are planned, so the
    time left is given once every video is planned."""

    def __init__(self, total, pending=0, stream=sys.stderr):
        self.total = total
        self.pending = pending  # videos whose frame count is not known yet
        self.stream = stream
        self.tty = stream.isatty()
        self.done = 0
        self.failed = 0
        self.start = time.perf_counter()
        self.next_line = 0

    def planned(self, frames):
        self.total += frames
        self.pending -= 1

    def dropped(self, frames):
        """Frames of a failed file: no longer to be done."""
        self.total -= frames

    def step(self, frames=1, failed=False):
        self.done += frames
        self.failed += failed
        rate = self.done / max(time.perf_counter() - self.start, 1e-9)
        left = " {} left".format(_clock((self.total - self.done) / rate)) if rate > 0 and not self.pending else ""
        if self.tty:
            width = 30
            filled = width * self.done // max(self.total, 1)
            self.stream.write("\r\033[K[{}{}] {}/{}{} frames, {:.1f} frames/s{}{}".format(
                "#" * filled, "." * (width - filled), self.done, self.total, "+" if self.pending else "", rate,
                left, " ({} failed)".format(self.failed) if self.failed else ""))
        elif self.done >= self.next_line or (self.done == self.total and not self.pending):
            self.stream.write("lumo.batch: {}/{}{} frames, {:.1f} frames/s{}\n".format(
                self.done, self.total, "+" if self.pending else "", rate, left))
            self.next_line = self.done + max(1, self.total // 10)
        self.stream.flush()

    def message(self, text):
        if self.tty:
            self.stream.write("\r\033[K")
        self.stream.write(text + "\n")
        self.stream.flush()

    def finish(self):
        if self.tty:
            self.stream.write("\n")
            self.stream.flush()


def _inputs(paths):
    """The files named, folders expanded to their photo and video files (sorted)."""
    files = []
    for path in paths:
        if os.path.isdir(path):
            files.extend(sorted(os.path.join(path, name) for name in os.listdir(path)
                                if name.lower().endswith(IMAGE_EXTENSIONS + video.VIDEO_EXTENSIONS)
                                and not name.startswith(".")))
        else:
            files.append(path)
    return files


def _is_video(path):
    return path.lower().endswith(video.VIDEO_EXTENSIONS)


def _plan(inputs, output_dir, force):
    """Splits the inputs into (work, skipped, refused): work and skipped are (source, target) pairs,
    refused are (source, reason)."""
    work, skipped, refused, claimed = [], [], [], {}
    sources = {os.path.realpath(source) for source in inputs if os.path.isfile(source)}
    for source in inputs:
        name = video.target_name(source) if _is_video(source) else os.path.basename(source)
        target = os.path.join(output_dir, name)
        if not os.path.isfile(source):
            refused.append((source, "no such file"))
        elif not source.lower().endswith(IMAGE_EXTENSIONS + video.VIDEO_EXTENSIONS):
            refused.append((source, "not a photo (.png, .jpg, .jpeg) or a video ({})".format(
                ", ".join(video.VIDEO_EXTENSIONS))))
        elif os.path.realpath(target) in claimed:
            refused.append((source, "same file name as " + claimed[os.path.realpath(target)]))
        elif os.path.exists(target) and os.path.samefile(source, target):
            refused.append((source, "refusing to overwrite the input (choose another -o)"))
        elif os.path.realpath(target) in sources:
            refused.append((source, "refusing to overwrite the input {} (choose another -o)".format(target)))
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


def _call(function, *arguments):
    """A task's result or its failure as a value, so that one bad file does not fail the batch."""
    try:
        return "done", function(*arguments)
    except video.VideoError as error:
        return "failed", str(error)
    except Exception as error:  # noqa: BLE001 - any failure of one file is reported, the rest go on
        return "failed", "{}: {}".format(type(error).__name__, error)


class _Video:
    """One video's state on the client: its plan, segments outstanding and counts for its closing line."""

    def __init__(self, source, target, work):
        self.source, self.target, self.work = source, target, work
        self.plan = None
        self.outstanding = 0
        self.reused = 0
        self.failed = False
        self.start = time.perf_counter()


class Batch:
    """Which tasks to run, and what follows each result: a photo is one task; a video is a split, then a
    task per segment, then a join. A driver (Dask, or this process) runs the tasks, each (key, function,
    arguments, urgent), and hands every result back to finished(), which returns the tasks that follow."""

    def __init__(self, work, engine, settings, video_options, progress, report):
        self.engine, self.settings = engine, settings
        self.tool, self.tool_arguments, self.seconds = video_options
        self.progress, self.report = progress, report
        self.photos = [(source, target) for source, target in work if not _is_video(source)]
        self.videos = []
        self.segments_reused = 0
        for source, target in work:
            if _is_video(source):
                # What decides a segment's content: a rerun with other settings starts afresh.
                key = [self.tool_arguments, self.seconds, os.path.splitext(target)[1].lower()]
                self.videos.append(_Video(source, target, video.work_folder(source, target, key)))

    def start(self):
        tasks = [(("prepare", index), video.prepare, (job.source, job.work, self.seconds), True)
                 for index, job in enumerate(self.videos)]
        return tasks + [(("photo", source), beautify_file, (source, target, self.engine, self.settings), False)
                        for source, target in self.photos]

    def _fail(self, job, reason):
        if not job.failed:
            job.failed = True
            self.report(job.source, "failed", reason)

    def finished(self, key, status, detail):
        if key[0] == "photo":
            self.report(key[1], status, detail)
            self.progress.step(failed=status != "done")
            return []
        job = self.videos[key[1]]
        extension = os.path.splitext(job.target)[1].lower()
        if key[0] == "prepare":
            if status != "done":
                shutil.rmtree(job.work, ignore_errors=True)  # nothing of it is worth keeping
                self.progress.pending -= 1
                self._fail(job, detail)
                self.progress.step(0, failed=True)
                return []
            job.plan = detail
            job.outstanding = len(detail["segments"])
            self.progress.planned(detail["frames"])
            return [(("segment", key[1], number), video.beautify_segment,
                     (self.tool, self.tool_arguments, job.work, number, segment["file"], segment["frames"], extension),
                     False) for number, segment in enumerate(detail["segments"])]
        if key[0] == "segment":
            job.outstanding -= 1
            frames = job.plan["segments"][key[2]]["frames"]
            if status != "done":
                self.progress.dropped(frames)
                self._fail(job, "{} (segments finished are kept in {} for a rerun)".format(detail, job.work))
            elif detail[0] == "reused":
                job.reused += 1
                self.segments_reused += 1
                self.progress.dropped(frames)  # not work of this run
            else:
                self.progress.step(frames)
            if job.outstanding == 0 and not job.failed:
                return [(("join", key[1]), video.join, (job.source, job.target, job.work, job.plan, extension), True)]
            return []
        # The join.
        if status != "done":
            self._fail(job, detail + " (the segments are kept in {} for a rerun)".format(job.work))
        else:
            self.report(job.source, "done", None)
            self.progress.message("lumo.batch: wrote {}: {} frames in {} segments ({} reused) in {:.1f} s".format(
                job.target, job.plan["frames"], len(job.plan["segments"]), job.reused,
                time.perf_counter() - job.start))
        return []


def _run_here(batch):
    queue = list(batch.start())
    while queue:
        key, function, arguments, _ = queue.pop(0)
        following = batch.finished(key, *_call(function, *arguments))
        # Joins and splits first: a finished video is written before the next one's segments run.
        queue = [task for task in following if task[3]] + queue + [task for task in following if not task[3]]


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


def _run_on_dask(batch, workers, scheduler, connect_timeout):
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
        keys = {}
        running = as_completed()

        def submit(tasks):
            for key, function, arguments, urgent in tasks:
                # pure=False: a rerun after an edit of the input must not reuse an old result. Splits and
                # joins go before queued segments, so that outputs appear as their videos are done.
                future = client.submit(_call, function, *arguments, pure=False, priority=1 if urgent else 0)
                keys[future] = key
                running.add(future)

        submit(batch.start())
        for future in running:
            key = keys.pop(future)
            try:
                status, detail = future.result()
            except Exception as error:  # noqa: BLE001 - e.g. KilledWorker after repeated worker deaths
                status, detail = "failed", "{}: {}".format(type(error).__name__, error)
            submit(batch.finished(key, status, detail))
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
        description="Beautify photos (PNG, JPEG) and videos in parallel on Dask distributed; each result goes to "
                    "DIR under the input's own file name (a video the tool cannot write in its container: .mp4). "
                    "A video is split at keyframes into segments, each run through lumo-beautify on a worker, "
                    "and joined by stream copy with the source's audio; every worker needs the tool, ffmpeg "
                    "and ffprobe.")
    parser.add_argument("inputs", nargs="+", metavar="IN", help="photo and video files, or folders of them")
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
    parser.add_argument("--faces", action="store_true", help="smoothing and skin whitening on faces only")
    videos = parser.add_argument_group("videos (passed to lumo-beautify, which checks them)")
    videos.add_argument("--tool", metavar="PATH",
                        help="the lumo-beautify binary, at this path on every worker (default: $LUMO_TOOL, else "
                             "lumo-beautify on PATH)")
    videos.add_argument("--segment-seconds", type=float, default=DEFAULT_SEGMENT_SECONDS, metavar="S",
                        help="split videos at the first keyframe after every S seconds (default: {:g})".format(
                            DEFAULT_SEGMENT_SECONDS))
    videos.add_argument("--video-codec", choices=("h264", "h265", "vp9"),
                        help="default: h264, vp9 in .webm")
    videos.add_argument("--crf", metavar="N", help="constant quality, lower is better (the tool's default)")
    videos.add_argument("--bitrate", metavar="KBPS", help="average bitrate in kbit/s instead of constant quality")
    videos.add_argument("--chroma", choices=("420", "422", "444"), help="chroma subsampling written (default: 420)")
    return parser


def _tool_arguments(options):
    """lumo-beautify's options for a video segment: the batch's settings as the user wrote them."""
    arguments = ["--engine", options.engine]
    for name in ("mask", "preset", "polish_step", "polish_factor", "whiten", "sharpen", "skin_whiten",
                 "video_codec", "crf", "bitrate", "chroma"):
        value = getattr(options, name)
        if value is not None:
            arguments += ["--" + name.replace("_", "-"), str(value)]
    return arguments + (["--faces"] if options.faces else [])


def _find_tool(option):
    return option or os.environ.get("LUMO_TOOL") or shutil.which("lumo-beautify")


def main(argv=None):
    parser = _parser()
    options = parser.parse_args(argv)
    try:
        settings = lumo.check_settings(mask=options.mask, preset=options.preset, polish_step=options.polish_step,
                                       polish_factor=options.polish_factor, whiten=options.whiten,
                                       sharpen=options.sharpen, skin_whiten=options.skin_whiten)
    except ValueError as error:
        parser.error(str(error))
    # A photo's faces are searched afresh in each (nothing carried between unrelated pictures).
    settings["faces"] = "photos" if options.faces else False
    if options.workers < 0:
        parser.error("--workers wants 0 or more")
    if not options.connect_timeout > 0:
        parser.error("--connect-timeout wants a number of seconds above 0")
    if not options.segment_seconds > 0:
        parser.error("--segment-seconds wants a number of seconds above 0")
    if options.crf is not None and options.bitrate is not None:
        parser.error("--crf and --bitrate exclude each other")
    try:
        os.makedirs(options.output, exist_ok=True)
    except OSError as error:
        print("lumo.batch: {}: {}".format(options.output, error.strerror), file=sys.stderr)
        return EXIT_FAILED

    work, skipped, refused = _plan(_inputs(options.inputs), options.output, options.force)
    tool = _find_tool(options.tool)
    # The workers share this machine's paths (as for every input), so the tool is looked for here too.
    if any(_is_video(source) for source, _ in work) and not (tool and os.access(tool, os.X_OK)):
        reason = "lumo-beautify is not at {}".format(tool) if tool else "lumo-beautify is not on PATH"
        refused += [(source, reason + ": give --tool PATH or set LUMO_TOOL") for source, _ in work if _is_video(source)]
        work = [(source, target) for source, target in work if not _is_video(source)]
    for source, reason in refused:
        print("lumo.batch: {}: {}".format(source, reason), file=sys.stderr)
    photos = sum(not _is_video(source) for source, _ in work)
    progress = Progress(photos, pending=len(work) - photos)
    counts = {"done": 0, "failed": len(refused)}
    engines = set()

    def report(source, status, detail):
        counts[status] += 1
        if status == "done":
            if detail:
                engines.add(detail[0])
        else:
            progress.message("lumo.batch: {}: {}".format(source, detail))

    batch = Batch(work, options.engine, settings, (tool, _tool_arguments(options), options.segment_seconds),
                  progress, report)
    before = {target: _identity(target) for _, target in work}
    sigint = signal.getsignal(signal.SIGINT)
    start = time.perf_counter()
    interrupted = False
    try:
        if not work:
            pass
        elif options.workers == 0 and not options.scheduler:
            _run_here(batch)
        else:
            _run_on_dask(batch, options.workers, options.scheduler, options.connect_timeout)
    except SchedulerUnreachable as error:
        print("lumo.batch: {}".format(error), file=sys.stderr)
        return EXIT_FAILED
    except KeyboardInterrupt:
        interrupted = True
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # what is left is brief: another Ctrl-C must not cut the report
    finally:
        progress.finish()
        _remove_stale_temporaries(work)
    if interrupted:
        # A worker may have written a file whose result was never reported: the folder is the record.
        counts["done"] = sum(_identity(target) != before[target] for _, target in work)
    seconds = time.perf_counter() - start
    print("lumo.batch: beautified {} files ({} failed, {} skipped) in {:.1f} s: {:.1f} frames/s{}{}".format(
        counts["done"], counts["failed"], len(skipped), seconds, progress.done / max(seconds, 1e-9),
        ", engine " + "/".join(sorted(engines)) if engines else "",
        ", {} segments reused".format(batch.segments_reused) if batch.videos else ""), file=sys.stderr)
    if interrupted:
        print("lumo.batch: interrupted; finished files are complete, the rest are not written{}".format(
            "; finished video segments are kept for a rerun" if batch.videos else ""), file=sys.stderr)
        signal.signal(signal.SIGINT, sigint)
        return EXIT_INTERRUPTED
    return EXIT_FAILED if counts["failed"] else 0


if __name__ == "__main__":
    # Run as lumo.batch, not __main__: the workers then import the task functions by name and share this
    # module's engine across tasks, instead of receiving a copy of them (and of _beautifiers) with each task.
    from lumo import batch

    sys.exit(batch.main())
