#include "SafeFile.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/random.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "ImageIO.h"

namespace lumo::tools {
namespace {

// The registry of temporaries the signal handler removes: fixed storage, written only with the signals
// held, read by the handler without locks (unlink is async-signal-safe).
struct Slot {
  volatile std::sig_atomic_t used;
  char path[PATH_MAX];
};
Slot slots[4];

volatile std::sig_atomic_t gracefulStop = 0;
volatile std::sig_atomic_t stopSignal = 0;

constexpr int kStopSignals[] = {SIGHUP, SIGINT, SIGTERM};
constexpr int kOtherSignals[] = {SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2, SIGVTALRM, SIGPROF, SIGXCPU, SIGABRT};
// A crash removes the temporary too; these are never held (a fault while held kills without a handler).
constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

void removeTemporaries() {
  for (Slot& slot : slots) {
    if (slot.used != 0) ::unlink(slot.path);
  }
}

sigset_t heldSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : kStopSignals) sigaddset(&set, sig);
  for (int sig : kOtherSignals) sigaddset(&set, sig);
  return set;
}

void onSignal(int sig) {
  const int savedErrno = errno;
  const bool stopSignalKind = sig == SIGHUP || sig == SIGINT || sig == SIGTERM;
  if (gracefulStop != 0 && stopSignalKind && stopSignal == 0) {
    stopSignal = sig;
    errno = savedErrno;
    return;
  }
  removeTemporaries();
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  ::sigaction(sig, &fallback, nullptr);
  // Pending until the handler returns, then the default action: the process ends by the signal, as a caller
  // expects.
  ::raise(sig);
  errno = savedErrno;
}

int registerTemporary(const std::string& path) {
  if (path.size() >= PATH_MAX) return -1;
  for (size_t i = 0; i < std::size(slots); ++i) {
    if (slots[i].used == 0) {
      std::memcpy(slots[i].path, path.c_str(), path.size() + 1);
      slots[i].used = 1;
      return static_cast<int>(i);
    }
  }
  return -1;
}

void forgetTemporary(int slot) {
  if (slot >= 0) slots[slot].used = 0;
}

std::string parentOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string realPath(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

// Files on /proc and /sys are the kernel's: a regular one there is never replaced, and a link there is not a
// path to follow by hand.
bool onKernelFilesystem(const std::string& folder) {
  struct statfs fs {};
  return ::statfs(folder.c_str(), &fs) == 0 && (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC);
}

// True when `path` is /proc/self/fd/N (or reaches it through its folder: /dev/fd/N, /proc/PID/fd/N).
bool ownDescriptor(const std::string& path, int* descriptor) {
  const std::string name = nameOf(path);
  if (name.empty() || name.size() > 9 ||
      !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return false;
  }
  const std::string folder = realPath(parentOf(path));
  if (folder.empty() || (folder != realPath("/proc/self/fd") && folder != realPath("/proc/thread-self/fd"))) {
    return false;
  }
  *descriptor = std::atoi(name.c_str());
  return true;
}

FileId idOf(const struct stat& status) {
  FileId id;
  id.known = true;
  id.device = status.st_dev;
  id.inode = status.st_ino;
  id.type = status.st_mode & S_IFMT;
  return id;
}

mode_t currentUmask() {
  static const mode_t mask = [] {
    const mode_t value = ::umask(0);
    ::umask(value);
    return value;
  }();
  return mask;
}

std::string mebibytes(size_t bytes) { return std::to_string(bytes >> 20) + " MiB"; }

}  // namespace

void ensureStandardDescriptors() {
  for (int fd = 0; fd < 3; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free descriptor is taken, and the lower ones are open by now: this lands on `fd`.
    const int opened = ::open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
    if (opened < 0) std::_Exit(1);  // no /dev/null: better to stop than to let a message reach an output
    if (opened != fd) {
      ::dup2(opened, fd);
      ::close(opened);
    }
  }
}

void installSignalHandlers() {
  currentUmask();  // read once now, before any thread exists
  struct sigaction action {};
  action.sa_handler = onSignal;
  action.sa_mask = heldSignals();
  action.sa_flags = 0;  // no SA_RESTART: a blocking read returns EINTR and the stream can stop
  auto install = [&](int sig) {
    struct sigaction old {};
    ::sigaction(sig, nullptr, &old);
    // Keep an inherited SIG_IGN (nohup) and a sanitizer's own handler.
    if ((old.sa_flags & SA_SIGINFO) != 0 || old.sa_handler != SIG_DFL) return;
    ::sigaction(sig, &action, nullptr);
  };
  for (int sig : kStopSignals) install(sig);
  for (int sig : kOtherSignals) install(sig);
  for (int sig : kFaultSignals) install(sig);
  std::signal(SIGPIPE, SIG_IGN);   // a closed output pipe shows up as EPIPE
  std::signal(SIGXFSZ, SIG_IGN);   // a file size limit shows up as EFBIG, and the temporary is removed
  std::atexit(removeTemporaries);  // std::exit from anywhere
}

void enableGracefulStop() { gracefulStop = 1; }

const volatile std::sig_atomic_t* stopRequested() { return &stopSignal; }

SignalsHeld::SignalsHeld() {
  const sigset_t set = heldSignals();
  ::pthread_sigmask(SIG_BLOCK, &set, &saved_);
}

SignalsHeld::~SignalsHeld() { ::pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }

int openInput(const std::string& path, InputUse use, FileId* id, std::string* error) {
  const int noWait = use == InputUse::Video ? O_NONBLOCK : 0;
  const int fd = path == "-" ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                             : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | noWait);
  if (fd < 0) {
    *error = std::strerror(errno);
    return -1;
  }
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    *error = std::strerror(errno);
    ::close(fd);
    return -1;
  }
  if (S_ISDIR(status.st_mode)) {
    *error = "is a directory, not a file";
  } else if (use == InputUse::Video && !S_ISREG(status.st_mode)) {
    *error = "is not a regular file (a pipe, socket or device): a video is read from a file";
  } else if (use == InputUse::Video && ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
    *error = std::strerror(errno);
  } else if (use == InputUse::Photo && (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))) {
    *error = "is a device, not an image file";
  } else if (use == InputUse::Photo && S_ISREG(status.st_mode) &&
             static_cast<uint64_t>(status.st_size) > kMaxImageFileBytes) {
    *error = "is " + mebibytes(static_cast<size_t>(status.st_size)) + "; image files above " +
             mebibytes(kMaxImageFileBytes) + " are refused";
  } else {
    if (id != nullptr) *id = idOf(status);
    return fd;
  }
  ::close(fd);
  return -1;
}

bool readAll(int fd, size_t limit, std::vector<uint8_t>* data, std::string* error) {
  struct stat status {};
  size_t capacity = size_t{1} << 16;
  if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size >= 0) {
    capacity = std::min(static_cast<size_t>(status.st_size), limit) + 1;  // +1 sees the end without a resize
  }
  data->resize(capacity);
  size_t have = 0;
  for (;;) {
    if (have == data->size()) {
      if (have > limit) break;
      data->resize(std::min(have * 2, limit + 1));
    }
    const ssize_t n = ::read(fd, data->data() + have, data->size() - have);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = std::strerror(errno);
      return false;
    }
    if (n == 0) break;
    have += static_cast<size_t>(n);
  }
  if (have > limit) {
    *error = "holds more than " + mebibytes(limit) + "; larger image files are refused";
    return false;
  }
  data->resize(have);
  return true;
}

OutputFile::~OutputFile() { discard(); }

bool OutputFile::resolve(const std::string& path, std::string* error) {
  if (path == "-") {
    kind_ = Kind::Descriptor;
    descriptor_ = STDOUT_FILENO;
  } else if (path.empty() || path.back() == '/') {
    *error = std::strerror(path.empty() ? ENOENT : EISDIR);
    return false;
  } else {
    // Follows the last part's links by hand, so that a link is never replaced: the file it leads to is.
    std::string current = path;
    for (int hops = 0;; ++hops) {
      if (hops > 40) {
        *error = std::strerror(ELOOP);
        return false;
      }
      if (ownDescriptor(current, &descriptor_)) {
        kind_ = Kind::Descriptor;
        break;
      }
      struct stat status {};
      if (::lstat(current.c_str(), &status) != 0) {
        if (errno != ENOENT) {
          *error = std::strerror(errno);
          return false;
        }
        exists_ = false;
        kind_ = Kind::Replace;
        target_ = current;
        break;
      }
      if (!S_ISLNK(status.st_mode)) {
        exists_ = true;
        target_ = current;
        old_ = status;
        id_ = idOf(status);
        if (S_ISDIR(status.st_mode)) {
          *error = std::strerror(EISDIR);
          return false;
        }
        kind_ = S_ISREG(status.st_mode) ? Kind::Replace : Kind::InPlace;
        break;
      }
      if (onKernelFilesystem(parentOf(current))) {
        // Another process's descriptor or the like: its text is no path. A pipe or device is opened through
        // the link; a file is refused.
        if (::stat(current.c_str(), &status) != 0) {
          *error = std::strerror(errno);
          return false;
        }
        if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) {
          *error = "leads to a file through /proc; name the file itself";
          return false;
        }
        exists_ = true;
        target_ = current;
        id_ = idOf(status);
        kind_ = Kind::InPlace;
        break;
      }
      std::vector<char> text(PATH_MAX + 1);
      const ssize_t length = ::readlink(current.c_str(), text.data(), PATH_MAX);
      if (length < 0) {
        *error = std::strerror(errno);
        return false;
      }
      const std::string next(text.data(), static_cast<size_t>(length));
      current = !next.empty() && next.front() == '/' ? next : parentOf(current) + "/" + next;
    }
  }
  if (kind_ == Kind::Descriptor) {
    const int flags = ::fcntl(descriptor_, F_GETFL);
    struct stat status {};
    if (flags == -1 || (flags & O_ACCMODE) == O_RDONLY || ::fstat(descriptor_, &status) != 0) {
      *error = std::strerror(EBADF);
      return false;
    }
    id_ = idOf(status);
    return true;
  }
  if (kind_ == Kind::Replace) {
    const std::string folder = parentOf(target_);
    if (onKernelFilesystem(folder)) {
      *error = "is inside /proc or /sys, where the tool writes no file";
      return false;
    }
    // Fails now, before any work, on a missing, read-only or unwritable folder.
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
      *error = std::strerror(errno);
      return false;
    }
    canonical_ = realPath(folder) + "/" + nameOf(target_);
  }
  return true;
}

bool OutputFile::overwrites(const FileId& id) const { return id_.holdsData() && id_ == id; }

bool OutputFile::sameTarget(const OutputFile& other) const {
  if (id_.known || other.id_.known) return id_ == other.id_ && id_.holdsData();
  return !canonical_.empty() && canonical_ == other.canonical_;
}

bool OutputFile::open(std::string* error) {
  if (kind_ == Kind::Descriptor) {
    fd_ = ::fcntl(descriptor_, F_DUPFD_CLOEXEC, 3);
  } else if (kind_ == Kind::InPlace) {
    // No O_CREAT, no O_TRUNC: a device or FIFO is written as it is.
    fd_ = ::open(target_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    struct stat status {};
    if (fd_ >= 0 && (::fstat(fd_, &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
      ::close(fd_);
      fd_ = -1;
      *error = "changed while it was being opened";
      return false;
    }
  } else {
    // Unnamed until commit where the filesystem allows it, so that even SIGKILL or a power cut leaves
    // nothing behind; a named, hidden temporary otherwise.
    fd_ = ::open(parentOf(target_).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    unnamed_ = fd_ >= 0;
    std::string pattern = temporaryPattern();
    if (!unnamed_) {
      SignalsHeld held;  // created and registered with no signal in between
      fd_ = ::mkostemp(pattern.data(), O_CLOEXEC | O_NOFOLLOW);
      if (fd_ >= 0) {
        slot_ = registerTemporary(pattern);
        if (slot_ < 0) {
          ::unlink(pattern.c_str());
          ::close(fd_);
          fd_ = -1;
          errno = ENAMETOOLONG;
        } else {
          temporary_ = pattern;
        }
      }
    }
    if (fd_ >= 0) {
      mode_t mode = 0666 & ~currentUmask();
      if (exists_) {
        mode = old_.st_mode & 07777;
        // Root replacing someone else's file hands it back to its owner; otherwise only the group may be
        // ours to set, or nothing: best effort.
        if ((old_.st_uid != ::geteuid() || old_.st_gid != ::getegid()) &&
            ::fchown(fd_, old_.st_uid, old_.st_gid) != 0) {
          const bool groupSet = ::fchown(fd_, static_cast<uid_t>(-1), old_.st_gid) == 0;
          static_cast<void>(groupSet);
        }
      }
      // Best effort too: where the filesystem keeps no modes, the temporary's 0600 is the safer outcome.
      const bool modeSet = ::fchmod(fd_, mode) == 0;
      static_cast<void>(modeSet);
    }
  }
  if (fd_ < 0) {
    *error = std::strerror(errno);
    return false;
  }
  return true;
}

bool OutputFile::commit(std::string* error) {
  if (fd_ < 0) {
    *error = std::strerror(EBADF);
    return false;
  }
  if (kind_ != Kind::Replace) {
    const int closed = ::close(fd_);
    fd_ = -1;
    if (closed != 0 && errno != EINTR) {
      *error = std::strerror(errno);
      return false;
    }
    return true;
  }
  if (::fsync(fd_) != 0) {
    *error = std::strerror(errno);
    discard();
    return false;
  }
  if (unnamed_ && !nameUnnamed(error)) {
    discard();
    return false;
  }
  const int closed = ::close(fd_);
  fd_ = -1;
  if (closed != 0) {
    *error = std::strerror(errno);
    discard();
    return false;
  }
  {
    SignalsHeld held;  // renamed and forgotten with no signal in between
    struct stat status {};
    if (::lstat(target_.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
      *error = "changed into something other than a file while being written; left as it is";
    } else if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
      *error = std::strerror(errno);
    } else {
      forgetTemporary(slot_);
      slot_ = -1;
      temporary_.clear();
    }
  }
  if (!temporary_.empty()) {
    discard();
    return false;
  }
  // The rename itself on disk; a failure here leaves the old or the new file whole, so it is not reported.
  const int folder = ::open(parentOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    ::fsync(folder);
    ::close(folder);
  }
  return true;
}

std::string OutputFile::temporaryPattern() const {
  // Hidden, beside the destination (so that the rename stays on one filesystem), short enough for any
  // name that fits NAME_MAX itself.
  return parentOf(target_) + "/." + nameOf(target_).substr(0, 200) + ".XXXXXX";
}

// Links the finished unnamed file under a fresh hidden name beside the destination, for the rename that
// replaces the destination in one step (a link cannot replace an existing name).
bool OutputFile::nameUnnamed(std::string* error) {
  const std::string self = "/proc/self/fd/" + std::to_string(fd_);
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name = temporaryPattern();
    static constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    uint8_t random[6] = {};
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) break;
    for (size_t i = 0; i < sizeof random; ++i) name[name.size() - 6 + i] = kLetters[random[i] % 62];
    SignalsHeld held;  // linked and registered with no signal in between
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      slot_ = registerTemporary(name);
      if (slot_ < 0) {
        ::unlink(name.c_str());
        errno = ENAMETOOLONG;
        break;
      }
      temporary_ = name;
      return true;
    }
    if (errno != EEXIST) break;
  }
  *error = std::strerror(errno);
  return false;
}

void OutputFile::discard() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  if (!temporary_.empty()) {
    SignalsHeld held;
    ::unlink(temporary_.c_str());
    forgetTemporary(slot_);
    slot_ = -1;
    temporary_.clear();
  }
}

}  // namespace lumo::tools
