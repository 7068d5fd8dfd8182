#include "kit.h"

#include <cstring>
#include <ostream>
#include <sstream>

namespace kit {

namespace {

uint8_t *RowOf(const BitmapRecord *b, int32_t y) {
  const int32_t stored = b->Orientation == ORIENT_BOTTOM_FIRST ? b->Height - 1 - y : y;
  return b->Pixels + static_cast<uint64_t>(stored) * b->BytesPerLine;
}

uint32_t Get16(const uint8_t *p) { return p[0] | (p[1] << 8); }
void Put16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

bool Bgr(int32_t order) { return order != ORDER_RGB; }

}  // namespace

std::ostream &operator<<(std::ostream &os, const Pixel &p) {
  return os << "(" << p.v[0] << "," << p.v[1] << "," << p.v[2] << "," << p.v[3] << ")";
}

std::string Format::Name() const {
  std::ostringstream s;
  s << bits
    << (IsGray()             ? "gray"
        : IsPalette()        ? "pal"
        : order == ORDER_RGB ? "rgb"
                             : "bgr")
    << (orientation == ORIENT_BOTTOM_FIRST ? "_bottomup" : "") << (structSize == 176 ? "_176" : "");
  return s.str();
}

int32_t Format::Channels() const {
  if (IsPalette() || IsGray()) return 1;
  return (bits == 32 || bits == 64) ? 4 : 3;
}

uint32_t Format::SampleMax() const {
  if (IsPalette()) return (1u << bits) - 1;
  if (IsGray()) return bits == 12 ? 4095u : bits == 32 ? 0xFFFFFFFFu : (1u << bits) - 1;
  if (bits == 16) return 31;
  return bits >= 48 ? 65535u : 255u;
}

bool HasGrayRamp(const BitmapRecord *b) {
  if (b->BitsPerPixel != 8 || b->ColorsUsed != 256 || !b->Palette) return false;
  for (int i = 0; i < 256; ++i) {
    const PaletteEntry &e = b->Palette[i];
    if (e.Blue != i || e.Green != i || e.Red != i) return false;
  }
  return true;
}

std::vector<Format> AllFormats(bool orientations) {
  std::vector<Format> base = {{1, ORDER_BGR},  {2, ORDER_BGR},   {4, ORDER_BGR},  {8, ORDER_BGR},
                              {8, ORDER_GRAY}, {12, ORDER_GRAY}, {16, ORDER_GRAY}};
  for (const Format &s : ColorFormats()) base.push_back(s);
  if (!orientations) return base;
  std::vector<Format> all = base;
  for (Format s : base) {
    s.orientation = ORIENT_BOTTOM_FIRST;
    all.push_back(s);
  }
  return all;
}

std::vector<Format> ColorFormats() {
  return {{16, ORDER_BGR}, {24, ORDER_BGR}, {24, ORDER_RGB}, {32, ORDER_BGR}, {32, ORDER_RGB},
          {48, ORDER_BGR}, {48, ORDER_RGB}, {64, ORDER_BGR}, {64, ORDER_RGB}};
}

Bitmap::Bitmap(const Format &format, int32_t width, int32_t height, const PaletteEntry *palette)
    : format_(format) {
  const int32_t status = AllocateBitmap(&rec_, format.structSize, MEMORY_CONVENTIONAL, width, height,
                                        format.bits, format.order, palette, format.orientation, nullptr, 0);
  EXPECT_EQ(status, RC_SUCCESS) << "AllocateBitmap " << format.Name();
}

Bitmap::Bitmap(const Format &format, int32_t width, int32_t height, const std::vector<Pixel> &pixels,
               const PaletteEntry *palette)
    : Bitmap(format, width, height, palette) {
  Fill(pixels);
}

Bitmap::Bitmap(Bitmap &&o) noexcept : format_(o.format_), rec_(o.rec_) {
  std::memset(&o.rec_, 0, sizeof o.rec_);
}

Bitmap &Bitmap::operator=(Bitmap &&o) noexcept {
  if (this != &o) {
    if (rec_.StructSize) FreeBitmap(&rec_);
    format_ = o.format_;
    rec_ = o.rec_;
    std::memset(&o.rec_, 0, sizeof o.rec_);
  }
  return *this;
}

Bitmap::~Bitmap() {
  if (!rec_.StructSize && !rec_.Pixels) return;  // never allocated
  // Tests set other record sizes to see them refused; the memory is still ours.
  if (rec_.StructSize != BITMAP_RECORD_SIZE && rec_.StructSize != BITMAP_RECORD_SIZE_OLD)
    rec_.StructSize = BITMAP_RECORD_SIZE;
  FreeBitmap(&rec_);
}

Pixel Bitmap::At(int32_t x, int32_t y) const {
  const uint8_t *row = RowOf(&rec_, y);
  const int32_t bits = rec_.BitsPerPixel;
  Pixel p;
  if (rec_.ColorOrder == ORDER_GRAY) {
    if (bits == 8)
      p.v[0] = row[x];
    else if (bits == 32)
      std::memcpy(&p.v[0], row + 4 * x, 4);
    else
      p.v[0] = Get16(row + 2 * x);
    return p;
  }
  switch (bits) {
    case 1:
      p.v[0] = (row[x >> 3] >> (7 - (x & 7))) & 1u;
      break;
    case 2:
      p.v[0] = (row[x >> 2] >> (6 - 2 * (x & 3))) & 3u;
      break;
    case 4:
      p.v[0] = (row[x >> 1] >> (4 - 4 * (x & 1))) & 15u;
      break;
    case 8:
      p.v[0] = row[x];
      break;
    case 16: {
      const uint32_t w = Get16(row + 2 * x);
      p = Rgb((w >> 10) & 31u, (w >> 5) & 31u, w & 31u);
      break;
    }
    default: {
      const int32_t n = bits / (bits >= 48 ? 16 : 8);
      const int32_t size = bits >= 48 ? 2 : 1;
      const uint8_t *s = row + static_cast<int64_t>(x) * n * size;
      uint32_t c[4] = {0, 0, 0, 0};
      for (int32_t i = 0; i < n; ++i) c[i] = size == 2 ? Get16(s + 2 * i) : s[i];
      p = Bgr(rec_.ColorOrder) ? Rgb(c[2], c[1], c[0], c[3]) : Rgb(c[0], c[1], c[2], c[3]);
    }
  }
  return p;
}

void Bitmap::Set(int32_t x, int32_t y, const Pixel &p) {
  uint8_t *row = RowOf(&rec_, y);
  const int32_t bits = rec_.BitsPerPixel;
  if (rec_.ColorOrder == ORDER_GRAY) {
    if (bits == 8)
      row[x] = static_cast<uint8_t>(p.v[0]);
    else if (bits == 32)
      std::memcpy(row + 4 * x, &p.v[0], 4);
    else
      Put16(row + 2 * x, p.v[0]);
    return;
  }
  switch (bits) {
    case 1:
    case 2:
    case 4: {
      const int32_t perByte = 8 / bits;
      const int32_t shift = (perByte - 1 - x % perByte) * bits;
      const uint32_t mask = ((1u << bits) - 1) << shift;
      uint8_t &byte = row[x / perByte];
      byte = static_cast<uint8_t>((byte & ~mask) | ((p.v[0] << shift) & mask));
      break;
    }
    case 8:
      row[x] = static_cast<uint8_t>(p.v[0]);
      break;
    case 16:
      Put16(row + 2 * x, (p.v[2] & 31u) | ((p.v[1] & 31u) << 5) | ((p.v[0] & 31u) << 10));
      break;
    default: {
      const int32_t n = bits / (bits >= 48 ? 16 : 8);
      const int32_t size = bits >= 48 ? 2 : 1;
      uint8_t *s = row + static_cast<int64_t>(x) * n * size;
      const uint32_t c[4] = {Bgr(rec_.ColorOrder) ? p.v[2] : p.v[0], p.v[1],
                             Bgr(rec_.ColorOrder) ? p.v[0] : p.v[2], p.v[3]};
      for (int32_t i = 0; i < n; ++i) {
        if (size == 2)
          Put16(s + 2 * i, c[i]);
        else
          s[i] = static_cast<uint8_t>(c[i]);
      }
    }
  }
}

std::vector<Pixel> Bitmap::Pixels() const {
  std::vector<Pixel> out;
  out.reserve(static_cast<size_t>(rec_.Width) * rec_.Height);
  for (int32_t y = 0; y < rec_.Height; ++y)
    for (int32_t x = 0; x < rec_.Width; ++x) out.push_back(At(x, y));
  return out;
}

void Bitmap::Fill(const std::vector<Pixel> &pixels) {
  ASSERT_EQ(pixels.size(), static_cast<size_t>(rec_.Width) * rec_.Height);
  size_t i = 0;
  for (int32_t y = 0; y < rec_.Height; ++y)
    for (int32_t x = 0; x < rec_.Width; ++x) Set(x, y, pixels[i++]);
}

void Bitmap::Randomize(uint32_t seed) {
  uint32_t state = seed * 2654435761u + 12345u;
  auto next = [&]() {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
  };
  const uint32_t max = format_.SampleMax();
  for (int32_t y = 0; y < rec_.Height; ++y)
    for (int32_t x = 0; x < rec_.Width; ++x) {
      Pixel p;
      for (int32_t c = 0; c < format_.Channels(); ++c)
        p.v[c] = max == 0xFFFFFFFFu ? next() : next() % (max + 1);
      Set(x, y, p);
    }
}

Pixel Bitmap::ColorAt(int32_t x, int32_t y) const {
  const PaletteEntry &e = rec_.Palette[At(x, y).v[0]];
  return Rgb(e.Red, e.Green, e.Blue);
}

std::vector<uint8_t> Bitmap::StoredBytes() const {
  return std::vector<uint8_t>(rec_.Pixels, rec_.Pixels + rec_.DataSize);
}

void SetRectRegion(BitmapRecord *b, int32_t left, int32_t top, int32_t right, int32_t bottom,
                   uint32_t combine) {
  const Rect r{left, top, right, bottom};
  ASSERT_EQ(SetBitmapRegionRect(b, &r, combine), RC_SUCCESS);
}

void SetEllipseRegion(BitmapRecord *b, int32_t left, int32_t top, int32_t right, int32_t bottom,
                      uint32_t combine) {
  const Rect r{left, top, right, bottom};
  ASSERT_EQ(SetBitmapRegionEllipse(b, &r, combine), RC_SUCCESS);
}

bool InRegion(const BitmapRecord *b, int32_t x, int32_t y) {
  return !BitmapHasRegion(b) || IsPointInRegion(b, y, x) != 0;
}

namespace detail {
uint64_t TrackedLive() {
  uint64_t count = 0;
  GetAllocationStats(&count, nullptr);
  return count;
}
void EnableTracking() { TrackAllocations(1); }
}  // namespace detail

LeakGuard::LeakGuard() {
  TrackAllocations(1);
  baseline_ = detail::TrackedLive();
}

LeakGuard::~LeakGuard() {
  const uint64_t live = detail::TrackedLive();
  EXPECT_EQ(live, baseline_) << "live allocations left behind:\n" << DescribeLiveAllocations();
}

uint64_t LeakGuard::Live() const { return detail::TrackedLive() - baseline_; }

std::string DescribeLiveAllocations() {
  AllocationInfo info[16];
  const uint32_t total = GetLiveAllocations(info, 16);
  std::ostringstream s;
  for (uint32_t i = 0; i < total && i < 16; ++i) {
    s << "  " << info[i].Size << " bytes from ";
    for (const wchar_t *c = info[i].File; c && *c; ++c) s << static_cast<char>(*c);
    s << ":" << info[i].Line << "\n";
  }
  if (total > 16) s << "  ... " << total - 16 << " more\n";
  return s.str();
}

ScopedCallback::ScopedCallback(std::function<int32_t(int32_t)> fn) : fn_(std::move(fn)) {
  oldCallback_ = GetStatusCallback(&oldUser_);
  SetStatusCallback(&ScopedCallback::Trampoline, this);
}

ScopedCallback::~ScopedCallback() { SetStatusCallback(oldCallback_, oldUser_); }

int32_t ScopedCallback::Trampoline(int32_t percent, void *self) {
  auto *s = static_cast<ScopedCallback *>(self);
  s->reports_.push_back(percent);
  return s->fn_(percent);
}

void ExpectStatuses(const std::vector<StatusCase> &cases) {
  for (const StatusCase &c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.call(), c.expected) << c.name;
  }
}

}  // namespace kit
