#include "ThreadPool.h"

namespace lumo::cpu {

ThreadPool::ThreadPool(int threads) {
  for (int i = 1; i < threads; ++i) workers_.emplace_back([this, i] { workerLoop(i); });
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

void ThreadPool::band(int index, int& begin, int& end) const {
  const int bands = size();
  begin = static_cast<int>(static_cast<long long>(count_) * index / bands);
  end = static_cast<int>(static_cast<long long>(count_) * (index + 1) / bands);
}

void ThreadPool::run(int count, Work work, const void* context) {
  if (workers_.empty() || count < 2) {
    work(context, 0, 0, count);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    work_ = work;
    context_ = context;
    count_ = count;
    pending_ = static_cast<int>(workers_.size());
    ++generation_;
  }
  wake_.notify_all();
  int begin = 0;
  int end = 0;
  band(0, begin, end);
  if (begin < end) work(context, 0, begin, end);
  std::unique_lock<std::mutex> lock(mutex_);
  done_.wait(lock, [this] { return pending_ == 0; });
}

void ThreadPool::workerLoop(int index) {
  unsigned seen = 0;
  for (;;) {
    Work work = nullptr;
    const void* context = nullptr;
    int begin = 0;
    int end = 0;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [&] { return stop_ || generation_ != seen; });
      if (stop_) return;
      seen = generation_;
      work = work_;
      context = context_;
      band(index, begin, end);
    }
    if (begin < end) work(context, index, begin, end);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (--pending_ == 0) done_.notify_one();
    }
  }
}

}  // namespace lumo::cpu
