#include "GlObjectCounter.h"

#include <atomic>

namespace lumo {
namespace {
std::atomic<uint64_t> created{0};
std::atomic<uint64_t> deleted{0};
}  // namespace

GLObjectStatistics glObjectStatistics() {
  GLObjectStatistics statistics;
  statistics.deleted = deleted.load(std::memory_order_relaxed);
  statistics.created = created.load(std::memory_order_relaxed);
  return statistics;
}

namespace globjects {
void noteCreated(uint32_t count) { created.fetch_add(count, std::memory_order_relaxed); }
void noteDeleted(uint32_t count) { deleted.fetch_add(count, std::memory_order_relaxed); }
}  // namespace globjects

}  // namespace lumo
