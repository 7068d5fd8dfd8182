// Q_ConvertToColoredGray, Q_BalanceColors, Q_SwapColors: checks in order,
// hand-worked pixels and palette entries, the depth changes of coloured gray,
// the palette progress, and the kept gray success of the swap.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "Colr_n_internal.h"
#include "kit.h"

namespace {

using kit::Pixel;
using kit::Rgb;

kit::Format Kind(int32_t bits, int32_t order = ORDER_BGR) { return kit::Format{bits, order}; }

std::vector<PaletteEntry> ColourPalette() {
  std::vector<PaletteEntry> p(256);
  for (uint32_t i = 0; i < 256; ++i) p[i] = {uint8_t(i * 37 + 5), uint8_t(250 - i * 11), uint8_t(i * 91), 0};
  return p;
}

int32_t Gray(BitmapRecord *b, int32_t rw, int32_t gw, int32_t bw, int32_t rf, int32_t gf, int32_t bf,
             uint32_t flags = 0) {
  return Q_ConvertToColoredGray(b, rw, gw, bw, rf, gf, bf, flags);
}

ColorBalanceFactors Shares(double r, double g, double b, uint32_t size = COLOR_BALANCE_FACTORS_SIZE) {
  return ColorBalanceFactors{size, r, g, b};
}

TEST(ChannelExports, ChecksInOrder) {
  kit::Bitmap bmp(Kind(24), 3, 2), gray8(Kind(8, ORDER_GRAY), 2, 2), gray32(Kind(32), 2, 2);
  kit::Bitmap gray12(Kind(12, ORDER_GRAY), 2, 2), gray16(Kind(16, ORDER_GRAY), 2, 2), ramp(Kind(4), 2, 2);
  gray32->ColorOrder = ORDER_GRAY;
  const auto sized = [&](uint32_t size, auto call) {
    bmp->StructSize = size;
    const int32_t status = call(bmp.get());
    EXPECT_EQ(bmp->StructSize, size);
    bmp->StructSize = BITMAP_RECORD_SIZE;
    return status;
  };
  const ColorBalanceFactors id[3] = {Shares(1, 0, 0), Shares(0, 1, 0), Shares(0, 0, 1)};
  const ColorBalanceFactors s27 = Shares(1, 0, 0, 27), s29 = Shares(1, 0, 0, 29), neg = Shares(0, -0.5, 1);
  const auto balance = [&](BitmapRecord *b, const ColorBalanceFactors *r, const ColorBalanceFactors *g,
                           const ColorBalanceFactors *bl,
                           uint32_t flags = 0) { return Q_BalanceColors(b, r, g, bl, flags); };
  const auto asSigned = [](BitmapRecord *b, auto call) {
    b->Flags |= BITMAP_SIGNED;
    const int32_t status = call(b);
    b->Flags &= ~BITMAP_SIGNED;
    return status;
  };
  kit::ExpectStatuses({
      // coloured gray
      {"gray flags before null", [] { return Gray(nullptr, 0, 0, 0, 0, 0, 0, 1); }, RC_INVALID_PARAMETER},
      {"gray null", [] { return Gray(nullptr, 0, 0, 0, 0, 0, 0); }, RC_NO_BITMAP},
      {"gray size 0", [&] { return sized(0, [](BitmapRecord *b) { return Gray(b, 0, 0, 0, 0, 0, 0); }); },
       RC_INVALID_STRUCT_SIZE},
      {"gray size 176", [&] { return sized(176, [](BitmapRecord *b) { return Gray(b, 0, 0, 0, 0, 0, 0); }); },
       RC_SUCCESS},
      {"gray gray32 before weights", [&] { return Gray(gray32, -1, 0, 0, 0, 0, 0); },
       RC_GRAY32_NOT_SUPPORTED},
      {"gray weight -1", [&] { return Gray(bmp, 0, -1, 0, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray weight 1001", [&] { return Gray(bmp, 1001, 0, 0, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray sum 1001", [&] { return Gray(bmp, 300, 300, 401, 0, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray sum 1000", [&] { return Gray(bmp, 300, 300, 400, 0, 0, 0); }, RC_SUCCESS},
      {"gray factor -1001", [&] { return Gray(bmp, 0, 0, 0, 0, 0, -1001); }, RC_INVALID_PARAMETER},
      {"gray factor 1001", [&] { return Gray(bmp, 0, 0, 0, 1001, 0, 0); }, RC_INVALID_PARAMETER},
      {"gray signed not checked",
       [&] { return asSigned(bmp, [](BitmapRecord *b) { return Gray(b, 0, 0, 0, 0, 0, 0); }); }, RC_SUCCESS},
      // balance
      {"balance flags", [&] { return balance(nullptr, nullptr, nullptr, nullptr, 1); }, RC_INVALID_PARAMETER},
      {"balance null", [&] { return balance(nullptr, &id[0], &id[1], &id[2]); }, RC_NO_BITMAP},
      {"balance size",
       [&] { return sized(200, [&](BitmapRecord *b) { return balance(b, &id[0], &id[1], &id[2]); }); },
       RC_INVALID_STRUCT_SIZE},
      {"balance gray32 before records", [&] { return balance(gray32, nullptr, nullptr, nullptr); },
       RC_GRAY32_NOT_SUPPORTED},
      {"balance red null", [&] { return balance(bmp, nullptr, &s27, nullptr); }, RC_NULL_OPTIONS},
      {"balance red 27", [&] { return balance(bmp, &s27, nullptr, nullptr); }, RC_INVALID_STRUCT_SIZE},
      {"balance green null", [&] { return balance(bmp, &id[0], nullptr, &s27); }, RC_NULL_OPTIONS},
      {"balance blue 29", [&] { return balance(bmp, &id[0], &id[1], &s29); }, RC_INVALID_STRUCT_SIZE},
      {"balance records before gray", [&] { return balance(gray8, &id[0], &id[1], nullptr); },
       RC_NULL_OPTIONS},
      {"balance gray before shares", [&] { return balance(gray8, &neg, &id[1], &id[2]); },
       RC_UNSUPPORTED_BITMAP},
      {"balance 12-bit gray", [&] { return balance(gray12, &id[0], &id[1], &id[2]); }, RC_UNSUPPORTED_BITMAP},
      {"balance 16-bit gray", [&] { return balance(gray16, &id[0], &id[1], &id[2]); }, RC_UNSUPPORTED_BITMAP},
      {"balance ramp palette", [&] { return balance(ramp, &id[0], &id[1], &id[2]); }, RC_UNSUPPORTED_BITMAP},
      {"balance negative blue", [&] { return balance(bmp, &id[0], &id[1], &neg); }, RC_INVALID_PARAMETER},
      {"balance signed not checked",
       [&] { return asSigned(bmp, [&](BitmapRecord *b) { return balance(b, &id[0], &id[1], &id[2]); }); },
       RC_SUCCESS},
      // swap: no flags word
      {"swap null", [] { return Q_SwapColors(nullptr, SWAP_RG); }, RC_NO_BITMAP},
      {"swap size", [&] { return sized(0, [](BitmapRecord *b) { return Q_SwapColors(b, SWAP_RG); }); },
       RC_INVALID_STRUCT_SIZE},
      {"swap gray32", [&] { return Q_SwapColors(gray32, 0); }, RC_GRAY32_NOT_SUPPORTED},
      {"swap gray before flags", [&] { return Q_SwapColors(gray8, 0); }, RC_SUCCESS},
      {"swap 16-bit gray 0x20", [&] { return Q_SwapColors(gray16, 0x20); }, RC_SUCCESS},
      {"swap no bit", [&] { return Q_SwapColors(bmp, 0); }, RC_INVALID_PARAMETER},
      {"swap unknown bit", [&] { return Q_SwapColors(bmp, 0x20); }, RC_INVALID_PARAMETER},
  });
}

// Rows: gray = weighted sum / 1000 per pixel, then table entry
// i + i * f / 1000 truncated toward zero and limited. Palette entries:
// (1 + f / 1000) * gray in doubles, truncated: the two differ for f = -333.
TEST(ColoredGray, RowsPalettesAndDepths) {
  kit::Bitmap rows(Kind(24), 3, 1, {Rgb(200, 100, 50), Rgb(201, 201, 201), Rgb(255, 255, 255)});
  ASSERT_EQ(Gray(rows, 299, 587, 114, 1000, -1000, 500), RC_SUCCESS);
  EXPECT_EQ(rows.At(0, 0), Rgb(248, 0, 186));  // gray 124
  EXPECT_EQ(rows.At(1, 0), Rgb(255, 0, 255));  // 201 + 201 * 500 / 1000 = 301 limited
  kit::Bitmap trunc(Kind(32), 1, 1, {Rgb(201, 201, 201, 77)});
  ASSERT_EQ(Gray(trunc, 1000, 0, 0, -333, 0, 0), RC_SUCCESS);
  EXPECT_EQ(trunc.At(0, 0), Rgb(135, 201, 201, 77));  // 201 - 66, fourth sample kept

  kit::Bitmap gray8(Kind(8, ORDER_GRAY), 2, 1, {kit::Level(201), kit::Level(100)});
  ASSERT_EQ(Gray(gray8, 299, 587, 114, -333, 500, -250), RC_SUCCESS);
  EXPECT_EQ(gray8->ColorOrder, ORDER_BGR) << "8-bit gray leaves as a colour palette bitmap";
  EXPECT_EQ(gray8.At(0, 0), kit::Level(201)) << "indices stay";
  const PaletteEntry &e = gray8->Palette[201];
  EXPECT_EQ(e.Red, 134);    // 0.667 * 201 = 134.07, not the rows' 135
  EXPECT_EQ(e.Green, 255);  // 1.5 * 201 limited
  EXPECT_EQ(e.Blue, 150);   // 0.75 * 201 = 150.75
  EXPECT_EQ(gray8->Palette[100].Green, 150);

  struct Deep {
    kit::Format format;
    Pixel in;
    int32_t bitsAfter;
  } deep[] = {{Kind(48), Rgb(60000, 30000, 1000), 48},
              {Kind(48, ORDER_RGB), Rgb(60000, 30000, 1000), 48},
              {Kind(64, ORDER_RGB), Rgb(60000, 30000, 1000, 9), 64},
              {Kind(16, ORDER_GRAY), kit::Level(60000), 48},
              {Kind(12, ORDER_GRAY), kit::Level(3750), 48}};
  for (const Deep &c : deep) {
    SCOPED_TRACE(c.format.Name());
    kit::Bitmap bmp(c.format, 1, 1, {c.in});
    ASSERT_EQ(Gray(bmp, 1000, 0, 0, 100, -500, 0), RC_SUCCESS);
    EXPECT_EQ(bmp->BitsPerPixel, c.bitsAfter);
    EXPECT_NE(bmp->ColorOrder, ORDER_GRAY);
    if (c.format.bits == 12) continue;  // widened to 16 bits by the depth conversion
    const Pixel out = bmp.At(0, 0);
    EXPECT_EQ(out.v[0], 65535u);  // 60000 + 6000 limited
    EXPECT_EQ(out.v[1], 30000u);
    EXPECT_EQ(out.v[2], 60000u);
  }
}

// Identity keeps every pixel; crossed records swap red and blue; shares
// above 1 saturate; the double sum is truncated.
TEST(Balance, MixingRule) {
  const ColorBalanceFactors id[3] = {Shares(1, 0, 0), Shares(0, 1, 0), Shares(0, 0, 1)};
  const ColorBalanceFactors cross[3] = {Shares(0, 0, 1), Shares(0, 1, 0), Shares(1, 0, 0)};
  const auto palette = ColourPalette();
  for (const kit::Format &format : kit::AllFormats()) {
    if (format.IsGray()) continue;
    SCOPED_TRACE(format.Name());
    kit::Bitmap bmp(format, 5, 3, format.IsPalette() ? palette.data() : nullptr);
    bmp.Randomize(3);
    const auto before = bmp.Pixels();
    std::vector<PaletteEntry> entries(bmp->Palette,
                                      bmp->Palette + (format.IsPalette() ? bmp->ColorsUsed : 0));
    ASSERT_EQ(Q_BalanceColors(bmp, &id[0], &id[1], &id[2], 0), RC_SUCCESS);
    EXPECT_EQ(bmp.Pixels(), before);
    ASSERT_EQ(Q_BalanceColors(bmp, &cross[0], &cross[1], &cross[2], 0), RC_SUCCESS);
    for (size_t i = 0; i < entries.size(); ++i)
      EXPECT_TRUE(bmp->Palette[i].Red == entries[i].Blue && bmp->Palette[i].Blue == entries[i].Red) << i;
    if (format.IsPalette()) continue;
    for (int32_t i = 0; i < 15; ++i) {
      const Pixel &o = before[i], n = bmp.At(i % 5, i / 5);
      EXPECT_TRUE(n.v[0] == o.v[2] && n.v[1] == o.v[1] && n.v[2] == o.v[0] && n.v[3] == o.v[3]) << i;
    }
  }
  const ColorBalanceFactors mix[3] = {Shares(0.5, 1.5, 0), Shares(0.5, 0, 0), Shares(0, 0, 0.1)};
  kit::Bitmap narrow(Kind(24), 1, 1, {Rgb(3, 200, 255)}), wide(Kind(48), 1, 1, {Rgb(3, 65535, 65535)});
  ASSERT_EQ(Q_BalanceColors(narrow, &mix[0], &mix[1], &mix[2], 0), RC_SUCCESS);
  EXPECT_EQ(narrow.At(0, 0), Rgb(101, 4, 25));  // 1.5 + 100 = 101.5; 4.5; 25.5
  ASSERT_EQ(Q_BalanceColors(wide, &mix[0], &mix[1], &mix[2], 0), RC_SUCCESS);
  EXPECT_EQ(wide.At(0, 0), Rgb(32769, 4, 6553));
  const ColorBalanceFactors huge[3] = {Shares(1e300, 0, 0), Shares(0, INFINITY, 0), Shares(0, 0, NAN)};
  kit::Bitmap extreme(Kind(24), 1, 1, {Rgb(2, 0, 9)});
  ASSERT_EQ(Q_BalanceColors(extreme, &huge[0], &huge[1], &huge[2], 0), RC_SUCCESS);
  EXPECT_EQ(extreme.At(0, 0), Rgb(255, 0, 0)) << "inf * 0 and NaN count as 0";
}

TEST(Swap, EveryExchangeOnEveryKind) {
  struct Case {
    uint32_t flags;
    int from[3];  // new red, green, blue from input index (0 R, 1 G, 2 B)
  } cases[] = {{SWAP_RG, {1, 0, 2}},   {SWAP_RB, {2, 1, 0}},   {SWAP_GB, {0, 2, 1}},
               {SWAP_RGBR, {2, 0, 1}}, {SWAP_RBGR, {1, 2, 0}}, {0x03, {1, 0, 2}}};
  const auto palette = ColourPalette();
  for (const kit::Format &format : kit::AllFormats(true)) {
    SCOPED_TRACE(format.Name());
    for (const Case &c : cases) {
      // 70 pixels: whole blocks of the vector loops and a tail.
      kit::Bitmap bmp(format, 70, 4, format.IsPalette() ? palette.data() : nullptr);
      bmp.Randomize(c.flags);
      kit::SetEllipseRegion(bmp, 0, 0, 70, 4);
      const auto before = bmp.Pixels();
      std::vector<PaletteEntry> entries(bmp->Palette, bmp->Palette + (format.IsPalette() ? 256 : 0));
      ASSERT_EQ(Q_SwapColors(bmp, c.flags), RC_SUCCESS);
      if (format.IsGray() || format.IsPalette()) {
        EXPECT_EQ(bmp.Pixels(), before);
        for (int32_t i = 0; format.IsPalette() && i < bmp->ColorsUsed; ++i) {
          const uint8_t rgb[3] = {entries[i].Red, entries[i].Green, entries[i].Blue};
          const PaletteEntry &n = bmp->Palette[i];
          EXPECT_TRUE(n.Red == rgb[c.from[0]] && n.Green == rgb[c.from[1]] && n.Blue == rgb[c.from[2]]) << i;
        }
        continue;
      }
      for (int32_t i = 0; i < 280; ++i) {
        const Pixel &o = before[i], n = bmp.At(i % 70, i / 70);
        const bool in = kit::InRegion(bmp, i % 70, i / 70);
        const Pixel want = in ? Rgb(o.v[c.from[0]], o.v[c.from[1]], o.v[c.from[2]], o.v[3]) : o;
        EXPECT_EQ(n, want) << c.flags << " pixel " << i;
      }
      // Rotating one way and back restores the bitmap.
      if (c.flags == SWAP_RGBR) {
        ASSERT_EQ(Q_SwapColors(bmp, SWAP_RBGR), RC_SUCCESS);
        EXPECT_EQ(bmp.Pixels(), before);
      }
    }
  }
}

// Every instruction set gives the scalar path's bytes and status: the swap,
// the per-channel equalisation, the colour balance and both intensity balances, on every kind,
// bottom-up too, with and without a region (widths past the vector blocks).
TEST(ChannelExports, InstructionSetsMatchScalar) {
  using Call = int32_t (*)(BitmapRecord *, img::Isa);
  const Call calls[] = {
      [](BitmapRecord *b, img::Isa isa) { return img::colrn::SwapWithIsa(b, SWAP_RBGR, isa); },
      [](BitmapRecord *b, img::Isa isa) { return img::colrn::SwapWithIsa(b, SWAP_GB, isa); },
      [](BitmapRecord *b, img::Isa isa) { return img::colrn::EqualizeWithIsa(b, HISTOEQ_PER_CHANNEL, isa); },
      // Inexact shares, thirds (many sums that the bounds leave open), exact
      // and saturating ones; shares of 0, -0 and 1, an output whose shares
      // are all zeros.
      [](BitmapRecord *b, img::Isa isa) {
        const ColorBalanceFactors r = Shares(0.9, 0.1, 0), g = Shares(0.05, 0.85, 0.1),
                                  bl = Shares(0, 0.1, 1);
        return img::colrn::BalanceWithIsa(b, &r, &g, &bl, 0, isa);
      },
      [](BitmapRecord *b, img::Isa isa) {
        const ColorBalanceFactors t = Shares(1.0 / 3, 1.0 / 3, 1.0 / 3), h = Shares(0.5, -0.0, 3.7);
        return img::colrn::BalanceWithIsa(b, &t, &h, &t, 0, isa);
      },
      [](BitmapRecord *b, img::Isa isa) {
        const ColorBalanceFactors r = Shares(1, -0.0, 0), g = Shares(0, 0, 1), bl = Shares(0.7, -0.0, 1);
        return img::colrn::BalanceWithIsa(b, &r, &g, &bl, 0, isa);
      },
      [](BitmapRecord *b, img::Isa isa) {
        return img::colrn::IntensityBalanceWithIsa(b, INTENSITY_BALANCE_GRAY_WORLD, 70, 0, isa);
      },
      [](BitmapRecord *b, img::Isa isa) {
        return img::colrn::IntensityBalanceWithIsa(b, INTENSITY_BALANCE_WHITE_PATCH, 100, 0, isa);
      }};
  const auto palette = ColourPalette();
  for (const kit::Format &format : kit::AllFormats(true))
    for (const bool region : {false, true})
      for (std::size_t k = 0; k < std::size(calls); ++k) {
        SCOPED_TRACE(format.Name() + (region ? " region, call " : " call ") + std::to_string(k));
        const auto run = [&](img::Isa isa) {
          kit::Bitmap b(format, 211, 5, format.IsPalette() ? palette.data() : nullptr);
          b.Randomize(static_cast<uint32_t>(k) + 3);
          if (region) kit::SetEllipseRegion(b, 2, 0, 209, 5);
          const int32_t status = calls[k](b, isa);
          std::vector<uint8_t> bytes = b.StoredBytes();
          bytes.push_back(static_cast<uint8_t>(status));
          for (int32_t i = 0; format.IsPalette() && i < 256; ++i)
            bytes.insert(bytes.end(), {b->Palette[i].Blue, b->Palette[i].Green, b->Palette[i].Red});
          return bytes;
        };
        const auto scalar = run(img::Isa::Scalar);
        for (const img::Isa isa : img::kAllIsas) {
          if (img::IsaAvailable(isa)) {
            EXPECT_EQ(run(isa), scalar) << img::IsaName(isa);
          }
        }
      }
}

// The counting loop against one increment a byte: pixels of 1, 3 and 4
// bytes, lengths around its 24-byte blocks, random bytes and runs of equal
// values (neighbours that count into the same bins), counts added to what
// the histograms already hold.
TEST(ChannelExports, CountBytesCountsEveryByteOnce) {
  std::mt19937 rng(8);
  for (const int32_t period : {1, 3, 4})
    for (const std::size_t pixels : {0u, 1u, 7u, 8u, 9u, 23u, 24u, 25u, 1001u})
      for (const bool runs : {false, true}) {
        std::vector<uint8_t> bytes(pixels * static_cast<std::size_t>(period));
        for (std::size_t i = 0; i < bytes.size(); ++i)
          bytes[i] = runs ? static_cast<uint8_t>(i / 37 % 3 + 250) : static_cast<uint8_t>(rng());
        const int32_t channels = period == 1 ? 1 : 3;
        std::vector<uint32_t> expected(3 * 256, 5), counts(img::colrn::kCountsSize, 0),
            histograms(3 * 256, 5);
        for (std::size_t i = 0; i < bytes.size(); ++i)
          if (i % static_cast<std::size_t>(period) < 3)
            ++expected[i % static_cast<std::size_t>(period) * 256 + bytes[i]];
        img::colrn::CountBytes(bytes.data(), pixels, period, counts.data());
        img::colrn::FoldCounts(counts.data(), channels, histograms.data());
        EXPECT_EQ(histograms, expected) << "period " << period << ", " << pixels << " pixels, runs " << runs;
      }
}

// Palette courses report 0, then once per entry up to 100 (remainders
// carried); a refusal leaves the palette unwritten. Row courses report
// nothing. Allocation failures give -1 and leak nothing.
TEST(ChannelExports, PaletteProgressAndFailures) {
  const auto palette = ColourPalette();
  const ColorBalanceFactors f[3] = {Shares(0.2, 0.5, 0.3), Shares(0.3, 0.6, 0.1), Shares(0.1, 0.2, 0.9)};
  const std::vector<std::function<int32_t(BitmapRecord *)>> calls = {
      [](BitmapRecord *b) { return Gray(b, 299, 587, 114, 100, 0, -100); },
      [&](BitmapRecord *b) { return Q_BalanceColors(b, &f[0], &f[1], &f[2], 0); },
      [](BitmapRecord *b) { return Q_SwapColors(b, SWAP_RBGR); }};
  for (size_t k = 0; k < calls.size(); ++k)
    for (const kit::Format &format : {Kind(4), Kind(8), Kind(24), Kind(64), Kind(16)}) {
      SCOPED_TRACE(testing::Message() << k << " " << format.Name());
      const auto setup = [&] {
        kit::Bitmap b(format, 7, 3, format.IsPalette() ? palette.data() : nullptr);
        b.Randomize(4);
        if (format.IsPalette()) b->ColorsUsed = 13;  // 100 / 13 = 7, remainder 9
        return b;
      };
      {
        kit::Bitmap b = setup();
        kit::ScopedCallback progress([](int32_t) { return RC_SUCCESS; });
        ASSERT_EQ(calls[k](b), RC_SUCCESS);
        const auto &r = progress.Reports();
        if (!format.IsPalette()) {
          EXPECT_TRUE(r.empty());
        } else {
          ASSERT_EQ(r.size(), 14u);
          EXPECT_EQ(r[0], 0);
          EXPECT_EQ(r[1], 7);
          EXPECT_EQ(r[2], 15);  // 18 carried: one more
          EXPECT_EQ(r.back(), 100);
        }
      }
      kit::CheckAllocationFailures(setup, [&](kit::Bitmap &b) { return calls[k](b); });
      if (!format.IsPalette()) continue;
      kit::Bitmap b = setup();
      const std::vector<PaletteEntry> entries(b->Palette, b->Palette + 13);
      kit::ScopedCallback cancel([](int32_t p) { return p == 15 ? kit::kCancel : RC_SUCCESS; });
      EXPECT_EQ(calls[k](b), kit::kCancel);
      for (int32_t i = 0; i < 13; ++i)
        EXPECT_TRUE(b->Palette[i].Red == entries[i].Red && b->Palette[i].Blue == entries[i].Blue) << i;
    }
}

}  // namespace
