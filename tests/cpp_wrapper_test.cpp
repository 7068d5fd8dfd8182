// The C++ wrapper (include/imgcolor.hpp), compiled as C++17: every family
// through its methods gives the pixels of the C call, ownership and moves,
// errors with their status names, progress with any callable, and borrowed
// caller memory.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "imgcolor.hpp"
#include "kit.h"

static_assert(__cplusplus == 201703L, "the wrapper test is built as C++17");

namespace {

using imgcolor::Bitmap;
using imgcolor::Error;

constexpr int32_t kW = 17, kH = 11;

// A random kit bitmap of the format and a wrapper bitmap copied from it.
struct Pair {
  kit::Bitmap c;
  Bitmap cpp;
};
Pair MakePair(const kit::Format &format, uint32_t seed = 7) {
  kit::Bitmap c(format, kW, kH);
  c.Randomize(seed);
  Bitmap cpp = Bitmap::CopyOf(c->Pixels, kW, kH, format.bits, format.order, c->BytesPerLine,
                              format.orientation, c->Palette);
  return {std::move(c), std::move(cpp)};
}

// Pixels, palette and kind of a record, for comparing the two sides.
std::vector<uint8_t> Contents(const BitmapRecord *b) {
  std::vector<uint8_t> out(b->Pixels, b->Pixels + b->DataSize);
  if (b->Palette && b->ColorsUsed > 0)
    out.insert(out.end(), reinterpret_cast<const uint8_t *>(b->Palette),
               reinterpret_cast<const uint8_t *>(b->Palette + b->ColorsUsed));
  for (int32_t v : {b->BitsPerPixel, b->ColorOrder, b->Width, b->Height})
    out.push_back(static_cast<uint8_t>(v));
  return out;
}

HueSatIntRange Band() { return {32, -2500, 300, 0, 0, 90, 15, 60}; }
ColorThresholdComponent Component() { return {16, 40, 180, COLORTHR_SELECT_INSIDE | COLORTHR_WHOLE_PIXEL}; }
ColorReplaceEntry Chosen() { return {0, 0x5080C0, 9000}; }
SelectiveColorOptions Selective() {
  SelectiveColorOptions o{};
  o.StructSize = sizeof o;
  o.Method = SELCOLOR_RELATIVE;
  o.Ranges[SELCOLOR_REDS] = {-40, 20, 10, 0};
  return o;
}
ChannelMixFactors Mix(int32_t r, int32_t g, int32_t b) { return {0, r, g, b, 5}; }
ColorBalanceFactors Share(double r, double g, double b) { return {COLOR_BALANCE_FACTORS_SIZE, r, g, b}; }
const std::vector<int32_t> kRamp = [] {
  std::vector<int32_t> t(256);
  for (int32_t i = 0; i < 256; ++i) t[i] = 255 - i / 2;
  return t;
}();

struct FamilyCase {
  const char *family;
  kit::Format format;
  std::function<void(Bitmap &)> method;
  std::function<int32_t(BitmapRecord *)> export_;
};

const kit::Format kColor{24, ORDER_BGR}, kWide{48, ORDER_BGR}, kGray{8, ORDER_GRAY};

const FamilyCase kFamilies[] = {
    {"point operations", kColor, [](Bitmap &b) { b.ChangeBitmapContrast(300); },
     [](BitmapRecord *r) { return Q_ChangeBitmapContrast(r, 300, 0); }},
    {"remap table", kColor, [](Bitmap &b) { b.RemapBitmapIntensity(kRamp, LUT_CHANNEL_GREEN); },
     [](BitmapRecord *r) { return Q_RemapBitmapIntensity(r, kRamp.data(), 256, LUT_CHANNEL_GREEN); }},
    {"histogram contrast", kWide, [](Bitmap &b) { b.HistoContrastBitmap(300); },
     [](BitmapRecord *r) { return Q_HistoContrastBitmap(r, 300, 0); }},
    {"curves", kColor, [](Bitmap &b) { b.MathFunctionBitmap(MATHFUNC_ROOT, 256); },
     [](BitmapRecord *r) { return Q_MathFunctionBitmap(r, MATHFUNC_ROOT, 256, 0); }},
    {"desaturation", kColor, [](Bitmap &b) { b.DesaturateBitmap(); },
     [](BitmapRecord *r) { return Q_DesaturateBitmap(r, 0); }},
    {"duotone", kGray, [](Bitmap &b) { b.GrayScaleToDuotone({}, 0x2060C0, 0); },
     [](BitmapRecord *r) { return Q_GrayScaleToDuotone(r, nullptr, 0x2060C0, 0); }},
    {"imgutil intensity", kWide, [](Bitmap &b) { b.ContBrightIntBitmap(200, -100, 50); },
     [](BitmapRecord *r) { return Q_ContBrightIntBitmap(r, 200, -100, 50, 0); }},
    {"extended gamma", kColor, [](Bitmap &b) { b.GammaCorrectBitmapExt(160, GAMMA_YUV); },
     [](BitmapRecord *r) { return Q_GammaCorrectBitmapExt(r, 160, GAMMA_YUV); }},
    {"automatic binarisation", kColor, [](Bitmap &b) { b.AutoBinaryBitmap(); },
     [](BitmapRecord *r) { return Q_AutoBinaryBitmap(r, 0); }},
    {"hue", kColor, [](Bitmap &b) { b.ChangeBitmapHue(120); },
     [](BitmapRecord *r) { return Q_ChangeBitmapHue(r, 120, 0); }},
    {"hue bands", kColor,
     [](Bitmap &b) { b.ChangeHueSatIntBitmap(0, 100, 0, {std::vector<HueSatIntRange>{Band()}}); },
     [](BitmapRecord *r) {
       const HueSatIntRange band = Band();
       return Q_ChangeHueSatIntBitmap(r, 0, 100, 0, &band, 1, 0);
     }},
    {"tint", kColor, [](Bitmap &b) { b.AdjustBitmapTint(1000, 300); },
     [](BitmapRecord *r) { return Q_AdjustBitmapTint(r, 1000, 300, 0); }},
    {"colour threshold", kColor,
     [](Bitmap &b) {
       b.ColorThresholdBitmap(COLORSPACE_RGB, {Component(), Component(), Component()});
     },
     [](BitmapRecord *r) {
       const ColorThresholdComponent c[3] = {Component(), Component(), Component()};
       return Q_ColorThresholdBitmap(r, COLORSPACE_RGB, c, 0);
     }},
    {"colour replace", kColor,
     [](Bitmap &b) { b.ColorReplaceBitmap({std::vector<ColorReplaceEntry>{Chosen()}}, 9000, 200, 50); },
     [](BitmapRecord *r) {
       const ColorReplaceEntry e = Chosen();
       return Q_ColorReplaceBitmap(r, &e, 1, 9000, 200, 50, 0);
     }},
    {"selective colour", kColor, [](Bitmap &b) { b.SelectiveColorBitmap(Selective()); },
     [](BitmapRecord *r) {
       const SelectiveColorOptions o = Selective();
       return Q_SelectiveColorBitmap(r, &o, 0);
     }},
    {"channel mix", kColor, [](Bitmap &b) { b.ChannelMix(Mix(50, 50, 0), Mix(0, 100, 0), Mix(20, 0, 80)); },
     [](BitmapRecord *r) {
       const ChannelMixFactors red = Mix(50, 50, 0), green = Mix(0, 100, 0), blue = Mix(20, 0, 80);
       return Q_ChannelMix(r, &red, &green, &blue, 0);
     }},
    {"coloured gray", kGray, [](Bitmap &b) { b.ConvertToColoredGray(300, 590, 110, 100, 0, -100); },
     [](BitmapRecord *r) { return Q_ConvertToColoredGray(r, 300, 590, 110, 100, 0, -100, 0); }},
    {"colour balance", kColor,
     [](Bitmap &b) { b.BalanceColors(Share(0.9, 0.1, 0), Share(0, 1, 0), Share(0, 0.2, 0.8)); },
     [](BitmapRecord *r) {
       const ColorBalanceFactors red = Share(0.9, 0.1, 0), green = Share(0, 1, 0), blue = Share(0, 0.2, 0.8);
       return Q_BalanceColors(r, &red, &green, &blue, 0);
     }},
    {"histogram equalisation", kColor, [](Bitmap &b) { b.HistoEqualizeBitmap(HISTOEQ_LUMINANCE); },
     [](BitmapRecord *r) { return Q_HistoEqualizeBitmap(r, HISTOEQ_LUMINANCE); }},
    {"local equalisation", kColor, [](Bitmap &b) { b.LocalHistoEqualizeBitmap(8, 8, 30, LOCALEQ_LUMINANCE); },
     [](BitmapRecord *r) { return Q_LocalHistoEqualizeBitmap(r, 8, 8, 30, LOCALEQ_LUMINANCE, 0); }},
    {"intensity balance", kColor,
     [](Bitmap &b) { b.ColorIntensityBalance(INTENSITY_BALANCE_WHITE_PATCH, 80); },
     [](BitmapRecord *r) { return Q_ColorIntensityBalance(r, INTENSITY_BALANCE_WHITE_PATCH, 80, 0); }},
    {"dynamic binary", kColor, [](Bitmap &b) { b.DynamicBinaryBitmap(5, 15); },
     [](BitmapRecord *r) { return Q_DynamicBinaryBitmap(r, 5, 15, 0); }},
    {"red-eye", kColor, [](Bitmap &b) { b.RemoveRedeyeBitmap(0x303030, 150, 70); },
     [](BitmapRecord *r) { return Q_RemoveRedeyeBitmap(r, 0x303030, 150, 70, 0); }},
    {"segmentation", kColor, [](Bitmap &b) { b.SegmentBitmap(300, 4); },
     [](BitmapRecord *r) { return Q_SegmentBitmap(r, 300, 4, nullptr, BITMAP_RECORD_SIZE, 0); }},
    {"target sampling", kWide,
     [](Bitmap &b) { b.SampleTargetBitmap(0x808080, 0x60A0C0, SAMPLE_CHAN_ALL | SAMPLE_METHOD_QUADRATIC); },
     [](BitmapRecord *r) {
       return Q_SampleTargetBitmap(r, 0x808080, 0x60A0C0, SAMPLE_CHAN_ALL | SAMPLE_METHOD_QUADRATIC);
     }},
};

TEST(CppWrapper, EveryFamilyGivesThePixelsOfTheCCall) {
  for (const FamilyCase &c : kFamilies) {
    SCOPED_TRACE(c.family);
    kit::LeakGuard leaks;
    Pair p = MakePair(c.format);
    ASSERT_EQ(Contents(p.c.get()), Contents(p.cpp.get()));
    ASSERT_EQ(c.export_(p.c.get()), RC_SUCCESS);
    c.method(p.cpp);
    EXPECT_EQ(Contents(p.c.get()), Contents(p.cpp.get()));
  }
}

// Exports that answer with values or make new bitmaps.
TEST(CppWrapper, ResultsAndNewBitmapsMatchTheCCalls) {
  kit::LeakGuard leaks;
  Pair p = MakePair(kColor);
  uint32_t count = 0, histogram[64] = {}, capacity = 30, profile[90] = {};
  ASSERT_EQ(Q_GetBitmapColorCount(p.c.get(), &count, 0), RC_SUCCESS);
  EXPECT_EQ(p.cpp.GetBitmapColorCount(), count);
  ASSERT_EQ(Q_GetBitmapHistogram(p.c.get(), histogram, 64, LUT_CHANNEL_RED), RC_SUCCESS);
  EXPECT_EQ(p.cpp.GetBitmapHistogram(64, LUT_CHANNEL_RED), std::vector<uint32_t>(histogram, histogram + 64));
  ASSERT_EQ(Q_LineProfile(p.c.get(), 1, 2, 15, 9, profile, &capacity, 0), RC_SUCCESS);
  EXPECT_EQ(p.cpp.LineProfile(1, 2, 15, 9), std::vector<uint32_t>(profile, profile + 3 * capacity));

  // Planes: the C planes, and merged back the original.
  BitmapRecord planes[3] = {};
  BitmapRecord *records[3] = {&planes[0], &planes[1], &planes[2]};
  ASSERT_EQ(Q_ColorSeparateBitmap(p.c.get(), records, BITMAP_RECORD_SIZE, COLORSEP_MODEL3), RC_SUCCESS);
  std::vector<Bitmap> cppPlanes = p.cpp.ColorSeparateBitmap(COLORSEP_MODEL3);
  ASSERT_EQ(cppPlanes.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Contents(&planes[i]), Contents(cppPlanes[i].get())) << "plane " << i;
    FreeBitmap(&planes[i]);
  }
  Bitmap rgb = MakePair(kColor).cpp;
  std::vector<Bitmap> split = rgb.ColorSeparateBitmap(COLORSEP_RGB);
  Bitmap merged =
      Bitmap::ColorMergeBitmap({std::vector<Bitmap *>{&split[0], &split[1], &split[2]}}, COLORSEP_RGB);
  EXPECT_EQ(merged.get()->Orientation, ORIENT_BOTTOM_FIRST);  // merged bottom-up; compare image rows
  for (int32_t y = 0; y < kH; ++y)
    EXPECT_TRUE(std::equal(merged.Row(y).begin(), merged.Row(y).end(), rgb.Row(y).begin())) << "row " << y;

  // Segment labels, and the sum of two bitmaps.
  Bitmap labels;
  BitmapRecord cLabels{};
  ASSERT_EQ(Q_SegmentBitmap(p.c.get(), 300, 4, &cLabels, BITMAP_RECORD_SIZE, 0), RC_SUCCESS);
  p.cpp.SegmentBitmap(300, 4, &labels);
  EXPECT_EQ(Contents(&cLabels), Contents(labels.get()));
  FreeBitmap(&cLabels);
  Pair q = MakePair(kColor, 99);
  BitmapList list = nullptr;
  BitmapRecord sum{};
  const uint32_t factors[2] = {1, 3};
  ASSERT_EQ(CreateBitmapList(&list), RC_SUCCESS);
  InsertBitmapListItem(list, -1, p.c.get());
  InsertBitmapListItem(list, -1, q.c.get());
  ASSERT_EQ(Q_AddWeightedBitmaps(&sum, BITMAP_RECORD_SIZE, list, factors, ADD_WEIGHTED_AVERAGE), RC_SUCCESS);
  DestroyBitmapList(list);
  const Bitmap cppSum = Bitmap::AddWeightedBitmaps({std::vector<const Bitmap *>{&p.cpp, &q.cpp}},
                                                   {std::vector<uint32_t>{1, 3}}, ADD_WEIGHTED_AVERAGE);
  EXPECT_EQ(Contents(&sum), Contents(cppSum.get()));
  FreeBitmap(&sum);
}

TEST(CppWrapper, MovesTransferOwnershipAndFreeOnce) {
  kit::LeakGuard leaks;
  Bitmap a(8, 4, 24);
  a.SetRegionRect({0, 0, 4, 4});
  const uint8_t *pixels = a.get()->Pixels;
  Bitmap b(std::move(a));
  EXPECT_TRUE(a.empty());  // NOLINT(bugprone-use-after-move): a moved-from bitmap is empty
  EXPECT_FALSE(a.HasRegion());
  EXPECT_EQ(b.get()->Pixels, pixels);
  EXPECT_TRUE(b.HasRegion());
  Bitmap c(2, 2, 8, ORDER_GRAY);
  c = std::move(b);  // c's own bitmap is freed (the leak guard sees it)
  EXPECT_EQ(c.get()->Pixels, pixels);
  Bitmap &alias = c;
  c = std::move(alias);
  EXPECT_EQ(c.get()->Pixels, pixels);
  static_assert(!std::is_copy_constructible_v<Bitmap> && std::is_nothrow_move_constructible_v<Bitmap>);
}

TEST(CppWrapper, RowsAndRegionSetters) {
  kit::LeakGuard leaks;
  for (int32_t orientation : {ORIENT_TOP_FIRST, ORIENT_BOTTOM_FIRST}) {
    Bitmap b(6, 6, 24, ORDER_BGR, orientation);
    b.SetRegionEllipse({0, 0, 6, 6});
    const Point triangle[] = {{0, 0}, {6, 0}, {0, 6}};
    b.SetRegionPolygon(triangle, POLYGON_EVEN_ODD, REGION_AND);
    b.SetRegionRect({0, 0, 1, 1}, REGION_OR);
    b.InvertBitmap();
    EXPECT_EQ(b.Row(0).size(), 18u);
    EXPECT_EQ(b.Row(0)[0], 255) << "pixel (0, 0) is in the region";
    EXPECT_EQ(b.Row(5)[15], 0) << "pixel (5, 5) is outside";
    EXPECT_EQ(b.Row(5).data(), b.get()->Pixels + (orientation == ORIENT_TOP_FIRST ? 5 : 0) * 20);
    b.ClearRegion();
    b.InvertBitmap();
    EXPECT_EQ(b.Row(0)[0], 0);
    EXPECT_EQ(b.Row(5)[15], 255);
  }
  const Bitmap wide(3, 1, 48);
  EXPECT_EQ(wide.Row<uint16_t>(0).size(), 9u);
  EXPECT_THROW(wide.Row(1), std::out_of_range);
}

TEST(CppWrapper, ErrorsCarryTheStatusAndItsName) {
  kit::LeakGuard leaks;
  struct Case {
    std::function<void()> call;
    int32_t status;
    const char *name;
  };
  Bitmap gray(4, 4, 8, ORDER_GRAY);
  const Case cases[] = {
      {[&] { gray.ChangeBitmapContrast(1001); }, RC_INVALID_PARAMETER, "RC_INVALID_PARAMETER"},
      {[&] { gray.ChannelMix(Mix(1, 1, 1), Mix(1, 1, 1), Mix(1, 1, 1)); }, RC_UNSUPPORTED_BITMAP,
       "RC_UNSUPPORTED_BITMAP"},
      {[] { Bitmap().InvertBitmap(); }, RC_NO_BITMAP, "RC_NO_BITMAP"},
      {[] { Bitmap(0, 4, 24); }, RC_INVALID_PARAMETER, "RC_INVALID_PARAMETER"},
      {[&] { gray.RemapBitmapHue(kRamp, {std::vector<int32_t>(4)}, {}, {}); }, RC_INVALID_PARAMETER,
       "RC_INVALID_PARAMETER"},
  };
  for (const Case &c : cases) {
    try {
      c.call();
      ADD_FAILURE() << "no error for " << c.name;
    } catch (const Error &e) {
      EXPECT_EQ(e.status(), c.status);
      EXPECT_STREQ(e.name(), c.name);
      EXPECT_NE(std::string(e.what()).find(c.name), std::string::npos) << e.what();
      EXPECT_FALSE(e.cancelled());
    }
  }
}

int32_t Sentinel(int32_t, void *) { return RC_SUCCESS; }

TEST(CppWrapper, ProgressTakesAnyCallableAndRestoresTheCallback) {
  kit::LeakGuard leaks;
  int marker = 0;
  SetStatusCallback(&Sentinel, &marker);
  auto restored = [&] {
    void *user = nullptr;
    return GetStatusCallback(&user) == &Sentinel && user == &marker;
  };
  // The reports equal those the C callback sees.
  kit::Bitmap c(kColor, kW, kH);
  std::vector<int32_t> cReports;
  {
    kit::ScopedCallback cb([&](int32_t p) {
      cReports.push_back(p);
      return RC_SUCCESS;
    });
    const ColorReplaceEntry e = Chosen();
    ASSERT_EQ(Q_ColorReplaceBitmap(c.get(), &e, 1, 9000, 0, 0, 0), RC_SUCCESS);
  }
  ASSERT_FALSE(cReports.empty());
  Bitmap b(kW, kH, 24);
  std::vector<int32_t> reports;
  imgcolor::WithProgress(
      [&](int32_t p) { reports.push_back(p); },
      [&] { b.ColorReplaceBitmap({std::vector<ColorReplaceEntry>{Chosen()}}, 9000, 0, 0); });
  EXPECT_EQ(reports, cReports);
  EXPECT_TRUE(restored());

  struct Stop {
    const char *what;
    std::function<void(int32_t)> run;  // runs the hue change with a callable stopping at report 2
    int32_t status;
  };
  int seen = 0;
  const Stop stops[] = {
      {"bool",
       [&](int32_t) {
         imgcolor::WithProgress(
             [&](int32_t) { return ++seen < 2; },
             [&] { b.ColorReplaceBitmap({std::vector<ColorReplaceEntry>{Chosen()}}, 9000, 0, 0); });
       },
       imgcolor::kCancelled},
      {"status",
       [&](int32_t) {
         imgcolor::WithProgress(
             [&](int32_t) { return ++seen < 2 ? RC_SUCCESS : -77; },
             [&] { b.ColorReplaceBitmap({std::vector<ColorReplaceEntry>{Chosen()}}, 9000, 0, 0); });
       },
       -77},
      {"scope",
       [&](int32_t) {
         auto scope = imgcolor::OnProgress([&](int32_t) { return ++seen < 2; });
         b.ColorReplaceBitmap({std::vector<ColorReplaceEntry>{Chosen()}}, 9000, 0, 0);
       },
       imgcolor::kCancelled},
  };
  for (const Stop &s : stops) {
    SCOPED_TRACE(s.what);
    seen = 0;
    try {
      s.run(0);
      ADD_FAILURE() << "not cancelled";
    } catch (const Error &e) {
      EXPECT_EQ(e.status(), s.status);
      EXPECT_EQ(e.cancelled(), s.status == imgcolor::kCancelled);
    }
    EXPECT_EQ(seen, 2) << "no report after the stop";
    EXPECT_TRUE(restored());
  }
  // A callable that throws stops the operation; its exception comes back.
  EXPECT_THROW(imgcolor::WithProgress(
                   [](int32_t p) -> bool { throw std::logic_error(std::to_string(p)); },
                   [&] { b.ColorReplaceBitmap({std::vector<ColorReplaceEntry>{Chosen()}}, 9000, 0, 0); }),
               std::logic_error);
  EXPECT_TRUE(restored());
  SetStatusCallback(nullptr, nullptr);
}

TEST(CppWrapper, BorrowsCallerMemoryWithAStride) {
  kit::LeakGuard leaks;
  // 5 x 3 pixels of 24 bits: 15 bytes a row, rows 20 bytes apart (the
  // kernel's own layout would be 16).
  std::vector<uint8_t> memory(3 * 20 + 4);
  for (size_t i = 0; i < memory.size(); ++i) memory[i] = static_cast<uint8_t>(i * 7);
  const std::vector<uint8_t> before = memory;
  Bitmap copy = Bitmap::CopyOf(memory.data(), 5, 3, 24, ORDER_BGR, 20);
  {
    Bitmap borrowed = Bitmap::Borrow(memory.data(), 5, 3, 24, ORDER_BGR, 20);
    EXPECT_TRUE(borrowed.borrowed());
    EXPECT_EQ(borrowed.Row(1).data(), memory.data() + 20);
    borrowed.SetRegionRect({1, 0, 5, 3});
    borrowed.ChangeBitmapSaturation(500);
    copy.SetRegionRect({1, 0, 5, 3});
    copy.ChangeBitmapSaturation(500);
    // Exports that replace the pixel memory are refused before the call.
    try {
      borrowed.GrayScaleBitmapExt(3000, 5900, 1100);
      ADD_FAILURE() << "a borrowed bitmap gave up its memory";
    } catch (const Error &e) {
      EXPECT_STREQ(e.name(), "RC_UNSUPPORTED_BITMAP");
    }
    Bitmap moved = std::move(borrowed);  // still borrowed, freed without the caller's memory
    EXPECT_TRUE(moved.borrowed());
  }
  for (int32_t y = 0; y < 3; ++y) {
    EXPECT_TRUE(std::equal(copy.Row(y).begin(), copy.Row(y).end(), memory.begin() + 20 * y)) << "row " << y;
    EXPECT_TRUE(
        std::equal(before.begin() + 20 * y + 15, before.begin() + 20 * y + 20, memory.begin() + 20 * y + 15))
        << "padding of row " << y;
  }
  EXPECT_NE(memory, before);
  // A 1-bit bitmap borrows too, with a palette of its own.
  uint8_t bits[8] = {0xF0, 0, 0, 0, 0x0F, 0, 0, 0};
  Bitmap monoCopy = Bitmap::CopyOf(bits, 8, 2, 1, ORDER_BGR, 4);
  Bitmap mono = Bitmap::Borrow(bits, 8, 2, 1, ORDER_BGR, 4);
  mono.SetRegionRect({0, 0, 6, 2});
  monoCopy.SetRegionRect({0, 0, 6, 2});
  mono.InvertBitmap();
  monoCopy.InvertBitmap();
  EXPECT_EQ(Contents(mono.get()), Contents(monoCopy.get()));
  EXPECT_EQ(bits[0], monoCopy.Row(0)[0]);
  EXPECT_THROW(Bitmap::Borrow(memory.data(), 5, 3, 24, ORDER_BGR, 18), Error);  // not a multiple of 4
  EXPECT_THROW(Bitmap::Borrow(memory.data(), 5, 3, 24, ORDER_BGR, 12), Error);  // shorter than a row
  const Bitmap odd = Bitmap::CopyOf(memory.data(), 5, 3, 24, ORDER_BGR, 18);
  EXPECT_TRUE(std::equal(odd.Row(2).begin(), odd.Row(2).end(), memory.begin() + 36));
}

}  // namespace
