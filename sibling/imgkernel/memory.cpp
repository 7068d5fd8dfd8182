// The family's allocator: zero-filled blocks (or, on request, blocks whose
// bytes are left as they come) with a header that carries the
// calling line and file, per-thread tracking of live blocks and per-thread
// fault injection.
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "imgkernel.h"
#include "imgplatform.h"

namespace {

// Blocks are 64-byte aligned so that row buffers suit any vector width.
constexpr std::size_t kAlign = 64;

// Blocks of 32 MiB and more (the C library maps every such block afresh, so
// each of its pages faults on first touch) start on a 2 MiB boundary and ask
// for huge pages: one fault per 2 MiB instead of one per 4 KB, and fewer
// translation misses in the random walks over them (segmentation's forest,
// 16-bit bitmaps of 4K images). Where huge pages are off the advice is
// ignored. They come from calloc, whose fresh mappings are zero without a
// clearing walk: a large table touches only the pages it uses.
constexpr std::size_t kHugeBlock = std::size_t{32} << 20;
constexpr std::size_t kHugeAlign = std::size_t{2} << 20;

struct Tracker;

struct alignas(kAlign) BlockHeader {
  std::size_t size;
  const wchar_t *file;
  int32_t line;
  uint32_t magic;
  BlockHeader *prev;  // links of the tracking thread's list
  BlockHeader *next;
  Tracker *tracker;  // null when allocated while tracking was off
  void *base;        // what the C library returned, to free
};
static_assert(sizeof(BlockHeader) == kAlign);
constexpr uint32_t kMagic = 0x494D474Bu;  // "IMGK"

struct Tracker {
  bool enabled = false;
  BlockHeader *head = nullptr;
  uint64_t count = 0;
  uint64_t bytes = 0;
  uint32_t failCountdown = 0;
};

Tracker &ThreadTracker() {
  thread_local Tracker tracker;
  return tracker;
}

void Unlink(BlockHeader *h) {
  Tracker *t = h->tracker;
  if (!t) return;
  if (h->prev)
    h->prev->next = h->next;
  else
    t->head = h->next;
  if (h->next) h->next->prev = h->prev;
  t->count--;
  t->bytes -= h->size;
  h->tracker = nullptr;
}

// A tracked block of count * size bytes; `zero` clears them (the header is
// written either way).
void *Allocate(size_t count, size_t size, int32_t line, const wchar_t *file, bool zero) {
  Tracker &t = ThreadTracker();
  if (t.failCountdown > 0 && --t.failCountdown == 0) return nullptr;
  if (size != 0 && count > (SIZE_MAX - 2 * kAlign - kHugeAlign) / size) return nullptr;
  const std::size_t bytes = count * size;
  const std::size_t total = sizeof(BlockHeader) + ((bytes + kAlign - 1) & ~(kAlign - 1));
  BlockHeader *h;
  void *raw;
  if (total >= kHugeBlock) {
    // Zero either way (calloc clears only what it reuses).
    raw = std::calloc(1, total + kHugeAlign);
    if (!raw) return nullptr;
    const std::uintptr_t at = (reinterpret_cast<std::uintptr_t>(raw) + kHugeAlign - 1) & ~(kHugeAlign - 1);
    h = reinterpret_cast<BlockHeader *>(at);
#ifdef MADV_HUGEPAGE
    madvise(h, total & ~(kHugeAlign - 1), MADV_HUGEPAGE);
#endif
  } else {
    raw = std::aligned_alloc(kAlign, total);
    if (!raw) return nullptr;
    std::memset(raw, 0, zero ? total : sizeof(BlockHeader));
    h = static_cast<BlockHeader *>(raw);
  }
  h->base = raw;
  h->size = bytes;
  h->file = file;
  h->line = line;
  h->magic = kMagic;
  if (t.enabled) {
    h->tracker = &t;
    h->next = t.head;
    if (t.head) t.head->prev = h;
    t.head = h;
    t.count++;
    t.bytes += bytes;
  }
  return h + 1;
}

}  // namespace

extern "C" {

IMG_API void *AllocZeroed(size_t count, size_t size, int32_t line, const wchar_t *file) {
  return Allocate(count, size, line, file, true);
}

IMG_API void *AllocUnset(size_t count, size_t size, int32_t line, const wchar_t *file) {
  return Allocate(count, size, line, file, false);
}

IMG_API void FreeMemory(void *memory, int32_t, const wchar_t *) {
  if (!memory) return;
  BlockHeader *h = static_cast<BlockHeader *>(memory) - 1;
  if (h->magic != kMagic) std::abort();  // not ours, or freed twice
  h->magic = 0;
  Unlink(h);
  std::free(h->base);
}

IMG_API void CopyMemory(void *destination, const void *source, size_t bytes) {
  if (bytes) std::memmove(destination, source, bytes);
}

IMG_API void FillMemory(void *destination, int32_t value, size_t bytes) {
  if (bytes) std::memset(destination, value, bytes);
}

IMG_API void TrackAllocations(int32_t enable) { ThreadTracker().enabled = enable != 0; }

IMG_API void GetAllocationStats(uint64_t *liveCount, uint64_t *liveBytes) {
  const Tracker &t = ThreadTracker();
  if (liveCount) *liveCount = t.count;
  if (liveBytes) *liveBytes = t.bytes;
}

IMG_API uint32_t GetLiveAllocations(AllocationInfo *out, uint32_t max) {
  const Tracker &t = ThreadTracker();
  uint32_t i = 0;
  for (const BlockHeader *h = t.head; h && out && i < max; h = h->next, ++i)
    out[i] = AllocationInfo{h + 1, h->size, h->line, h->file};
  return static_cast<uint32_t>(t.count);
}

IMG_API void SetAllocationFailure(uint32_t nth) { ThreadTracker().failCountdown = nth; }

IMG_API uint32_t GetAllocationFailureCountdown(void) { return ThreadTracker().failCountdown; }

}  // extern "C"
