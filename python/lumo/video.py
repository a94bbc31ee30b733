"""Video files for lumo.batch: split at keyframes, beautify segments with lumo-beautify, join by stream copy.

Three kinds of task, each a plain function that a Dask worker (or this process) runs on shared paths:

- prepare(): reads the video's packet headers with ffprobe (no decoding), picks keyframes about
  `seconds` apart and copies the video stream into one file per segment with FFmpeg's segment muxer.
- beautify_segment(): runs the real lumo-beautify on one segment, checks every frame came out, and only
  then gives the result its final name, so a segment in the work folder is always complete.
- join(): concatenates the segments by stream copy at the source's keyframe times, muxes the source's
  audio and subtitles in once, and renames the output into place.
"""

import fractions
import hashlib
import json
import os
import shutil
import signal
import subprocess
import tempfile
import time

# What lumo-beautify reads as video by name; it writes the first five, the others become .mp4.
VIDEO_EXTENSIONS = (".mp4", ".m4v", ".mov", ".mkv", ".webm", ".avi", ".ts", ".mts", ".m2ts", ".3gp", ".flv", ".ogv")
WRITABLE_EXTENSIONS = (".mp4", ".m4v", ".mov", ".mkv", ".webm")
TEMPORARY_MARK = ".lumo-tmp-"
WORK_MARK = ".lumo-work-"
PLAN = "plan.json"
# A track must reach the length its container declares within this, as the tool requires of an input.
REACH_SLACK = 0.5

# Audio and subtitle codecs each output container takes as they are; other audio is re-encoded as the
# tool does (AAC, Opus in WebM), other subtitles converted to the container's text format where it has one.
_MP4_AUDIO = {"aac", "mp3", "ac3", "eac3", "alac", "opus"}
_CONTAINERS = {
    ".mp4": ("mp4", _MP4_AUDIO, "aac", {"mov_text"}, "mov_text"),
    ".m4v": ("mp4", _MP4_AUDIO, "aac", {"mov_text"}, "mov_text"),
    ".mov": ("mov", _MP4_AUDIO | {"pcm_s16le", "pcm_s24le"}, "aac", {"mov_text"}, "mov_text"),
    ".mkv": ("matroska", None, "aac", None, None),  # None: takes every codec
    ".webm": ("webm", {"opus", "vorbis"}, "libopus", {"webvtt"}, "webvtt"),
}
_TEXT_SUBTITLES = {"subrip", "ass", "ssa", "webvtt", "mov_text", "text"}


class VideoError(Exception):
    """A video that cannot be split, beautified or joined; the message says why."""


def target_name(source):
    """The output's file name: the input's, in .mp4 where the tool writes no such container."""
    name = os.path.basename(source)
    stem, extension = os.path.splitext(name)
    return name if extension.lower() in WRITABLE_EXTENSIONS else stem + ".mp4"


def work_folder(source, target, key):
    """Beside the output, named after it and a hash of everything that decides the segments' content."""
    status = os.stat(source)
    identity = json.dumps([os.path.realpath(source), status.st_size, status.st_mtime_ns, key], sort_keys=True)
    digest = hashlib.sha256(identity.encode()).hexdigest()[:16]
    folder, name = os.path.split(target)
    return os.path.join(folder, "." + name + WORK_MARK + digest)


def _kill_with_parent():
    """The tool and FFmpeg die with the worker: a worker killed mid-segment leaves no orphan encoding."""
    import ctypes

    ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def _run(arguments, what):
    try:
        done = subprocess.run(arguments, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              errors="replace", preexec_fn=_kill_with_parent)
    except FileNotFoundError:
        raise VideoError("{} is not installed (not found on PATH)".format(arguments[0]))
    if done.returncode != 0:
        lines = [line for line in done.stderr.splitlines() if line.strip()]
        raise VideoError("{} failed (exit status {}): {}".format(what, done.returncode,
                                                                 lines[-1] if lines else "no message"))
    return done


def _probe(source):
    """Container, streams and every packet's header of `source` (ffprobe reads no pixels)."""
    done = _run(["ffprobe", "-v", "error", "-show_entries",
                 "format=format_name,duration:stream=index,codec_type,codec_name,time_base:"
                 "packet=stream_index,pts,dts,duration,flags", "-of", "json", source], "ffprobe")
    if done.stderr.strip():
        raise VideoError("is damaged or cut short: " + done.stderr.strip().splitlines()[0])
    return json.loads(done.stdout)


def _seconds(value, time_base):
    return None if value in (None, "N/A") else int(value) * time_base


def _packets(info, stream):
    """(pts, dts, duration, keyframe) of one stream in decode order, in seconds as exact fractions."""
    time_base = fractions.Fraction(stream["time_base"])
    packets = []
    for packet in info.get("packets", []):
        if packet.get("stream_index") == stream["index"]:
            dts = _seconds(packet.get("dts"), time_base)
            pts = _seconds(packet.get("pts"), time_base)
            packets.append((pts if pts is not None else dts, dts, _seconds(packet.get("duration"), time_base) or 0,
                            "K" in packet.get("flags", "")))
    return packets


def plan_segments(keyframes, seconds):
    """Decode indices of the keyframes that start segments: the first, then the first keyframe at least
    `seconds` after the current segment's start. keyframes: (decode index, pts) in decode order."""
    starts = [keyframes[0]]
    for index, pts in keyframes[1:]:
        if pts - starts[-1][1] >= seconds:
            starts.append((index, pts))
    return starts


def _segment_format(format_name):
    """The source's own family where it keeps the time base and rotation, else Matroska (takes any codec)."""
    if "mov" in format_name.split(","):
        return "mov", ".mov"
    if "mpegts" in format_name.split(","):
        return "mpegts", ".ts"
    return "matroska", ".mkv"


def _count_packets(path):
    done = _run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-count_packets", "-show_entries",
                 "stream=nb_read_packets", "-of", "csv=p=0", path], "ffprobe")
    try:
        return int(done.stdout.strip().split(",")[0])
    except ValueError:
        return 0


def _write_json(path, data):
    folder, name = os.path.split(path)
    descriptor, temporary = tempfile.mkstemp(prefix="." + name + TEMPORARY_MARK, dir=folder)
    with os.fdopen(descriptor, "w") as file:
        json.dump(data, file)
        file.flush()
        os.fsync(file.fileno())
    os.replace(temporary, path)


def _remove_temporaries(folder):
    for entry in os.listdir(folder):
        if TEMPORARY_MARK in entry:
            path = os.path.join(folder, entry)
            shutil.rmtree(path) if os.path.isdir(path) else os.unlink(path)


def prepare(source, work, seconds):
    """Splits `source` into keyframe-aligned segments in `work`, or reads the plan a previous run left.
    Returns the plan: segments (file, frames, start, duration), the video's first time, the frame count."""
    plan_path = os.path.join(work, PLAN)
    if os.path.exists(plan_path):
        with open(plan_path) as file:
            plan = json.load(file)
        _remove_temporaries(work)  # of a run that died: no writer is left
        plan["split_reused"] = True
        return plan
    info = _probe(source)
    videos = [s for s in info.get("streams", []) if s.get("codec_type") == "video"]
    if not videos:
        raise VideoError("has no video stream to beautify")
    packets = _packets(info, videos[0])
    if not packets or not packets[0][3] or any(p[0] is None for p in packets):
        raise VideoError("does not start at a keyframe with timestamps, so it cannot be split")
    # A cut-off file whose header declares more than its packets hold (the tool's own rule).
    declared = float(info.get("format", {}).get("duration", 0) or 0)
    reach = 0.0
    for stream in info.get("streams", []):
        ends = [p[0] + p[2] for p in _packets(info, stream) if p[0] is not None]
        reach = max([reach] + [float(end) for end in ends])
    if declared - reach > REACH_SLACK:
        raise VideoError("is cut short: its tracks end at {:.1f} s of the {:.1f} s it declares".format(reach, declared))

    keyframes = [(index, p[0]) for index, p in enumerate(packets) if p[3]]
    starts = plan_segments(keyframes, fractions.Fraction(seconds))
    first = min(p[0] for p in packets)
    end = max(p[0] + p[2] for p in packets)
    bounds = [index for index, _ in starts] + [len(packets)]
    times = [pts for _, pts in starts] + [end]
    segment_format, extension = _segment_format(info["format"]["format_name"])

    os.makedirs(work, exist_ok=True)
    split = tempfile.mkdtemp(prefix="split" + TEMPORARY_MARK, dir=work)
    arguments = ["ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", source, "-map", "0:v:0", "-c", "copy",
                 "-f", "segment", "-segment_format", segment_format, "-reset_timestamps", "1"]
    if len(starts) > 1:
        # Decode indices of keyframes: exact where times printed in decimal could fall a tick late.
        arguments += ["-segment_frames", ",".join(str(index) for index in bounds[1:-1])]
    else:
        arguments += ["-segment_time", "1e9"]
    done = _run(arguments + [os.path.join(split, "source-%05d" + extension)], "splitting with ffmpeg")
    if done.stderr.strip():
        raise VideoError("is damaged or cut short: " + done.stderr.strip().splitlines()[0])
    segments = []
    for number in range(len(starts)):
        name = "source-{:05d}{}".format(number, extension)
        frames = bounds[number + 1] - bounds[number]
        if _count_packets(os.path.join(split, name)) != frames:
            raise VideoError("could not be split at its keyframes (segment {} lacks frames)".format(number))
        duration = times[number + 1] - times[number]
        segments.append({"file": name, "frames": frames, "start": str(times[number]), "duration": str(duration)})
    plan = {"segments": segments, "first": str(first), "frames": len(packets), "split_seconds": seconds}
    for entry in os.listdir(split):
        os.replace(os.path.join(split, entry), os.path.join(work, entry))
    os.rmdir(split)
    _write_json(plan_path, plan)  # last: a plan on disk means every source segment is there
    plan["split_reused"] = False
    return plan


def segment_output(work, number, extension):
    return os.path.join(work, "beautified-{:05d}{}".format(number, extension))


def beautify_segment(tool, arguments, work, number, source_name, frames, extension):
    """Runs the tool on one segment. Returns ("reused" or "done", frames, seconds of work)."""
    final = segment_output(work, number, extension)
    if os.path.exists(final):
        return "reused", frames, 0.0
    start = time.perf_counter()
    # A fresh temporary each attempt: a worker that died mid-segment may have left one.
    descriptor, temporary = tempfile.mkstemp(prefix="." + os.path.basename(final) + TEMPORARY_MARK,
                                             suffix=extension, dir=work)
    os.close(descriptor)
    try:
        _run([tool, os.path.join(work, source_name), "-o", temporary] + list(arguments),
             "lumo-beautify on segment {}".format(number))
        written = _count_packets(temporary)
        if written != frames:
            raise VideoError("lumo-beautify wrote {} of segment {}'s {} frames".format(written, number, frames))
        os.replace(temporary, final)
    finally:
        if os.path.exists(temporary):
            os.unlink(temporary)
    return "done", frames, time.perf_counter() - start


def _time(text):
    """A decimal the concat demuxer and -itsoffset read (microseconds, their resolution)."""
    return "{:.6f}".format(float(fractions.Fraction(text)))


def _streams_to_mux(source, extension):
    """FFmpeg options that map and code the source's audio and subtitles for the output container."""
    info = json.loads(_run(["ffprobe", "-v", "error", "-show_entries", "stream=index,codec_type,codec_name",
                            "-of", "json", source], "ffprobe").stdout)
    _, audio_ok, audio_encoder, subtitles_ok, subtitle_encoder = _CONTAINERS[extension]
    options = []
    audio = subtitles = 0
    for stream in info.get("streams", []):
        kind, codec = stream.get("codec_type"), stream.get("codec_name")
        if kind == "audio":
            options += ["-map", "1:{}".format(stream["index"]), "-c:a:{}".format(audio),
                        "copy" if audio_ok is None or codec in audio_ok else audio_encoder]
            audio += 1
        elif kind == "subtitle":
            if subtitles_ok is None or codec in subtitles_ok:
                coding = "copy"
            elif codec in _TEXT_SUBTITLES and subtitle_encoder:
                coding = subtitle_encoder
            else:
                continue  # a picture subtitle where only text goes
            options += ["-map", "1:{}".format(stream["index"]), "-c:s:{}".format(subtitles), coding]
            subtitles += 1
    return options


def join(source, target, work, plan, extension):
    """Concatenates the beautified segments at the source's times, with the source's audio and subtitles,
    into a temporary beside `target`, then renames it. Removes the work folder after. Returns the frames."""
    lines = ["ffconcat version 1.0"]
    for number, segment in enumerate(plan["segments"]):
        path = segment_output(work, number, extension)
        if not os.path.exists(path):
            raise VideoError("segment {} is missing from {}".format(number, work))
        lines.append("file '{}'".format(os.path.basename(path)))
        # The source's keyframe-to-keyframe time, so each segment starts where it started in the source.
        lines.append("duration " + _time(segment["duration"]))
    listing = os.path.join(work, "segments.ffconcat")
    with open(listing, "w") as file:
        file.write("\n".join(lines) + "\n")
    folder, name = os.path.split(target)
    descriptor, temporary = tempfile.mkstemp(prefix="." + name + TEMPORARY_MARK, suffix=extension, dir=folder or ".")
    os.close(descriptor)
    try:
        _run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-itsoffset", _time(plan["first"]), "-f", "concat", "-safe", "0",
              "-i", listing, "-i", source, "-map", "0:v:0", "-c:v", "copy"] + _streams_to_mux(source, extension)
             + ["-map_metadata", "1", "-map_chapters", "1", "-f", _CONTAINERS[extension][0], temporary],
             "joining with ffmpeg")
        written = _count_packets(temporary)
        if written != plan["frames"]:
            raise VideoError("the joined video has {} of {} frames".format(written, plan["frames"]))
        os.chmod(temporary, 0o644)  # mkstemp makes 0600; a video is as readable as any other file
        os.replace(temporary, target)
    finally:
        if os.path.exists(temporary):
            os.unlink(temporary)
    remove_work_folders(target)
    return plan["frames"]


def remove_work_folders(target):
    """The work folders of `target` (also those of other settings): the output is complete."""
    folder, name = os.path.split(target)
    prefix = "." + name + WORK_MARK
    for entry in os.listdir(folder or "."):
        if entry.startswith(prefix):
            shutil.rmtree(os.path.join(folder, entry), ignore_errors=True)
