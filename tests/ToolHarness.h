// lumo-beautify as a subprocess, in a fresh folder per test: through sh for redirections, or forked directly
// where a test needs the child's pid, its signals or its resource usage.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace lumo::testing {

namespace fs = std::filesystem;

struct Outcome {
  int status;  // the exit status, -1 when the tool died of a signal
  std::string err;
};

inline std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline void writeFile(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

class ToolRun : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("lumo-tool-" + std::to_string(::getpid()) + "-" +
                                        ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // `arguments` is shell text, run in the test's folder after `prefix` (e.g. "timeout 20"); stderr is
  // captured.
  Outcome run(const std::string& arguments, const std::string& prefix = "") {
    const std::string errFile = (dir_ / "stderr.txt").string();
    // A hang fails its own command within two minutes (status 124, or 137 once killed), not the whole test.
    return {shell(prefix + " timeout -k 5 120 '" LUMO_TOOL "' " + arguments + " 2>'" + errFile + "'"),
            readFile(errFile)};
  }
  // Shell text run in the test's folder; its exit status, -1 after a signal.
  int shell(const std::string& text) {
    const std::string command = "cd '" + dir_.string() + "' && " + text;
    const int raw = std::system(command.c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }

  // Forks the tool with `args` in the test's folder, stdin from `input` (-1: /dev/null), stderr to
  // stderr.txt. `beforeExec` runs in the parent once the pid is known and before the child execs.
  template <typename BeforeExec>
  pid_t spawn(const std::vector<std::string>& args, int input, BeforeExec beforeExec) {
    int gate[2];
    if (::pipe2(gate, O_CLOEXEC) != 0) return -1;
    const std::string errFile = (dir_ / "stderr.txt").string();
    const pid_t child = ::fork();
    if (child == 0) {
      char go = 0;
      ::close(gate[1]);
      if (::read(gate[0], &go, 1) != 1) ::_exit(126);
      if (::chdir(dir_.c_str()) != 0) ::_exit(126);
      const int in = input >= 0 ? input : ::open("/dev/null", O_RDONLY);
      ::dup2(in, STDIN_FILENO);
      const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(err, STDERR_FILENO);
      std::vector<char*> argv{const_cast<char*>(LUMO_TOOL)};
      for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      ::execv(LUMO_TOOL, argv.data());
      ::_exit(127);
    }
    ::close(gate[0]);
    if (child > 0) beforeExec(child);
    const char go = 1;
    const bool released = ::write(gate[1], &go, 1) == 1;
    ::close(gate[1]);
    return released ? child : -1;
  }
  pid_t spawn(const std::vector<std::string>& args, int input = -1) {
    return spawn(args, input, [](pid_t) {});
  }

  // Waits for a child at most `seconds` (then kills it and returns false); `*status` is the wait status.
  static bool waitFor(pid_t child, int* status, struct rusage* usage = nullptr, int seconds = 60) {
    struct rusage ignored {};
    for (int i = 0; i < seconds * 100; ++i) {
      const pid_t done = ::wait4(child, status, WNOHANG, usage != nullptr ? usage : &ignored);
      if (done == child) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(child, SIGKILL);
    ::wait4(child, status, 0, usage != nullptr ? usage : &ignored);
    return false;
  }

  std::string err() { return readFile(dir_ / "stderr.txt"); }

  // Every name in the folder, hidden ones included.
  std::set<std::string> names(const fs::path& folder) {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder)) found.insert(entry.path().filename().string());
    return found;
  }
  std::set<std::string> names() { return names(dir_); }
  size_t fileCount() { return names().size(); }

  // Whether `child` holds a file of the folder open for writing that is not (yet) one of `known`: an unnamed
  // O_TMPFILE output, or a hidden temporary.
  bool writesUnknownFile(pid_t child, const std::set<std::string>& known) {
    std::error_code ignored;
    const std::string folder = dir_.string() + "/";
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(child) + "/fd", ignored)) {
      const std::string target = fs::read_symlink(fd.path(), ignored).string();
      if (target.rfind(folder, 0) == 0 && known.count(target.substr(folder.size())) == 0) return true;
    }
    return false;
  }

  // Bytes `child` has written into the folder: its files there, and the unnamed ones (O_TMPFILE) it holds
  // open in it, which have no name to list until they are committed.
  size_t bytesWrittenBy(pid_t child) {
    size_t bytes = 0;
    for (const auto& entry : fs::directory_iterator(dir_)) {
      if (entry.path().filename() != "stderr.txt" && entry.is_regular_file()) bytes += entry.file_size();
    }
    const std::string unnamed = dir_.string() + "/#";
    std::error_code ignored;
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(child) + "/fd", ignored)) {
      const std::string target = fs::read_symlink(fd.path(), ignored).string();
      struct stat status {};
      if (target.rfind(unnamed, 0) == 0 && ::stat(fd.path().c_str(), &status) == 0) {
        bytes += static_cast<size_t>(status.st_size);
      }
    }
    return bytes;
  }

  fs::path dir_;
};

}  // namespace lumo::testing
