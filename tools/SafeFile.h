#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

// How lumo-beautify opens what it reads and writes, so that a user's files are never lost or clobbered:
// outputs go to an exclusive temporary beside the destination and are renamed over it only when complete;
// devices, pipes and the process's own descriptors are written in place; a temporary is removed on every
// way out, signals included.
namespace lumo::tools {

// Opens /dev/null onto any of descriptors 0-2 that is closed, so that no file the tool opens later becomes
// its stdout or stderr. The stand-in stdout and stderr are read-only (a write fails with EBADF rather than
// vanishing) and the stand-in stdin write-only, so that a closed stdin is not read as an empty stream.
void ensureStandardDescriptors();

// Installs the handlers that remove registered temporaries on any terminating signal and then end the
// process by that signal; ignores SIGPIPE (EPIPE instead) and SIGXFSZ (EFBIG instead). Signals already
// ignored at start (nohup) stay ignored. Call first thing in main, before any temporary exists.
void installSignalHandlers();

// From now on SIGINT, SIGTERM and SIGHUP only ask to stop (stopRequested() becomes the signal's number),
// once: a second one ends the process at once, still removing temporaries.
void enableGracefulStop();
const volatile std::sig_atomic_t* stopRequested();

// Holds the handled signals for the calling thread while alive. Threads started meanwhile (an engine's
// workers, the GL driver's) inherit the mask, so that a signal always reaches the main thread and
// interrupts its blocking read.
class SignalsHeld {
 public:
  SignalsHeld();
  ~SignalsHeld();
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
  sigset_t saved_;
};

// A file's identity (device and inode).
struct FileId {
  bool known = false;
  dev_t device = 0;
  ino_t inode = 0;
  mode_t type = 0;  // S_IFMT bits
  bool operator==(const FileId& other) const {
    return known && other.known && device == other.device && inode == other.inode;
  }
  // Regular files and block devices hold data that writing would destroy; pipes and character devices
  // (a terminal, /dev/null) may be both read and written.
  bool holdsData() const { return known && (S_ISREG(type) || S_ISBLK(type)); }
};

enum class InputUse { Photo, Stream, Video };

// Opens an input ("-" is stdin) and checks its type before anything is read: a directory is refused, and for
// a photo a device (/dev/zero) or a regular file above kMaxImageFileBytes too. Pipes and sockets are read for
// photos and streams; a stream may also come from a device. A video must be a regular file (its demuxer
// seeks, and a FIFO without a writer would block the open): it is opened without waiting for a writer, so
// that a FIFO is refused at once. Returns the descriptor, or -1 with `*error`.
int openInput(const std::string& path, InputUse use, FileId* id, std::string* error);

// Reads a whole descriptor, refusing more than `limit` bytes.
bool readAll(int fd, size_t limit, std::vector<uint8_t>* data, std::string* error);

// One output, from resolve() to commit(). The destructor removes whatever is not committed.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Works out where `path` leads, writing nothing: "-" and links to the process's own descriptors
  // (/dev/stdout, /dev/fd/N, /proc/self/fd/N) are written through that descriptor at its offset; a device,
  // FIFO or socket (or a link to one) is written in place; a regular file (or a link to one, or a new name)
  // is replaced at the link's resolved target, the link kept. A directory, or a regular file inside /proc,
  // is refused.
  bool resolve(const std::string& path, std::string* error);

  // Whether this output is the file `id` names (only files that hold data count).
  bool overwrites(const FileId& id) const;
  // Whether the two outputs end in the same file.
  bool sameTarget(const OutputFile& other) const;

  // Creates the temporary (or opens the device, or duplicates the descriptor); fd() is then writable.
  bool open(std::string* error);
  int fd() const { return fd_; }
  // Flushes and renames the temporary into place, with the replaced file's permission bits (a new file gets
  // 0666 less the umask). After a failure nothing is left behind.
  bool commit(std::string* error);
  // Removes the temporary, if any; a device or descriptor is only closed.
  void discard();
  // Whether bytes written reach the destination at once (a device, pipe or descriptor), so that a discard
  // cannot take them back.
  bool writesInPlace() const { return kind_ != Kind::Replace; }

 private:
  enum class Kind { Replace, InPlace, Descriptor };
  Kind kind_ = Kind::Replace;
  std::string target_;     // the path written or renamed over: its last part is not a link
  std::string canonical_;  // its folder's real path and its name, to tell two new names apart
  bool exists_ = false;
  struct stat old_ {};
  FileId id_;
  int descriptor_ = -1;  // Descriptor: the process's own descriptor named
  int fd_ = -1;
  std::string temporaryPattern() const;
  bool nameUnnamed(std::string* error);

  std::string temporary_;
  bool unnamed_ = false;  // an O_TMPFILE file: no name until commit
  int slot_ = -1;
};

}  // namespace lumo::tools
