#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

namespace lumo::cpu {

// A fixed set of workers that split a range of rows into bands. `run` blocks until every band is done and
// allocates nothing, so a frame costs no heap allocation.
class ThreadPool {
 public:
  using Work = void (*)(const void* context, int worker, int begin, int end);

  explicit ThreadPool(int threads);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  int size() const { return static_cast<int>(workers_.size()) + 1; }  // the caller works too
  void run(int count, Work work, const void* context);

  // Calls `body(worker, begin, end)` over bands of [0, count).
  template <typename Body>
  void parallelFor(int count, const Body& body) {
    run(
        count,
        [](const void* context, int worker, int begin, int end) {
          (*static_cast<const Body*>(context))(worker, begin, end);
        },
        &body);
  }

 private:
  void workerLoop(int index);
  void band(int index, int& begin, int& end) const;

  std::vector<std::thread> workers_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable done_;
  Work work_ = nullptr;
  const void* context_ = nullptr;
  int count_ = 0;
  int pending_ = 0;
  unsigned generation_ = 0;
  bool stop_ = false;
};

}  // namespace lumo::cpu
