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
    return {shell(prefix + " '" LUMO_TOOL "' " + arguments + " 2>'" + errFile + "'"), readFile(errFile)};
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

  fs::path dir_;
};

}  // namespace lumo::testing
