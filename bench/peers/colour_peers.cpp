// The colour exports and rows beside their OpenCV counterparts: hue,
// saturation, hue bands and tint against the HSV composite (BGR to HSV, a
// 3-channel lookup table, HSV to BGR), desaturation against a 3x3 transform,
// the YCrCb and floating Lab rows against cvtColor (8-bit Lab). The 16-bit
// forms are timed against our own 8-bit form (ratio target: 2).
#include <functional>

#include "ClrSpc.h"
#include "imgcolor.h"
#include "peers_common.h"

namespace {

using peers::Alternate;
using peers::Bitmap;

using Export = std::function<int32_t(BitmapRecord *)>;

const HueSatIntRange kBand{32, 1500, 300, 100, 330, 30, 350, 10};

int32_t Hue(BitmapRecord *b) { return Q_ChangeBitmapHue(b, 60, 0); }
int32_t Saturation(BitmapRecord *b) { return Q_ChangeBitmapSaturation(b, 300, 0); }
int32_t HueSatInt(BitmapRecord *b) { return Q_ChangeHueSatIntBitmap(b, 3000, 200, 100, &kBand, 1, 0); }
int32_t Tint(BitmapRecord *b) { return Q_AdjustBitmapTint(b, 500, 300, 0); }
int32_t Desaturate(BitmapRecord *b) { return Q_DesaturateBitmap(b, 0); }

const cv::Mat &Photo8() {
  static const cv::Mat photo = peers::Photo(CV_8U);
  return photo;
}
const cv::Mat &Photo16() {
  static const cv::Mat photo = peers::Photo(CV_16U);
  return photo;
}

// The HSV composite: hue turned by 60 degrees (30 of OpenCV's 180), the
// saturation scaled by 1.3, the value kept.
cv::Mat CompositeTable() {
  cv::Mat lut(1, 256, CV_8UC3);
  for (int i = 0; i < 256; ++i)
    lut.at<cv::Vec3b>(i) = cv::Vec3b(static_cast<uint8_t>(i < 180 ? (i + 30) % 180 : i),
                                     cv::saturate_cast<uint8_t>(i * 1.3), static_cast<uint8_t>(i));
  return lut;
}

void VsComposite(benchmark::State &state, Export call) {
  Bitmap ours(Photo8());
  const cv::Mat lut = CompositeTable();
  cv::Mat hsv, out;
  Alternate(
      state, [&] { ours.Restore(); }, [&] { return call(&ours.bitmap) == RC_SUCCESS; }, [] {},
      [&] {
        cv::cvtColor(Photo8(), hsv, cv::COLOR_BGR2HSV);
        cv::LUT(hsv, lut, hsv);
        cv::cvtColor(hsv, out, cv::COLOR_HSV2BGR);
        return true;
      });
}

void VsTransform(benchmark::State &state, Export call) {
  Bitmap ours(Photo8());
  const cv::Matx33f m(0.114f, 0.587f, 0.299f, 0.114f, 0.587f, 0.299f, 0.114f, 0.587f, 0.299f);
  cv::Mat out;
  Alternate(
      state, [&] { ours.Restore(); }, [&] { return call(&ours.bitmap) == RC_SUCCESS; }, [] {},
      [&] {
        cv::transform(Photo8(), out, m);
        return true;
      });
}

// An export on 48-bit pixels against the same export on 24-bit pixels.
void SixteenVsEight(benchmark::State &state, Export call) {
  Bitmap wide(Photo16()), narrow(Photo8());
  Alternate(
      state, [&] { wide.Restore(); }, [&] { return call(&wide.bitmap) == RC_SUCCESS; },
      [&] { narrow.Restore(); }, [&] { return call(&narrow.bitmap) == RC_SUCCESS; });
}

// Row conversions of a whole image: forward from the photo into a space
// buffer, inverse from what the forward code produced.
struct Rows {
  uint32_t code;
  int pixelSize;
  cv::Mat rgb;
  std::vector<uint8_t> space;
  Rows(uint32_t c, const cv::Mat &photo) : code(c), rgb(photo.clone()) {
    const uint32_t forward = code % COLORSPACE_TO_RGB;
    pixelSize = img::GetColorSpacePixelSize(forward, static_cast<int>(rgb.elemSize1() * 8));
    space.resize(static_cast<size_t>(pixelSize) * rgb.total());
    Run(forward);
  }
  bool Run(uint32_t c) {
    for (int y = 0; y < rgb.rows; ++y) {
      uint8_t *sp = space.data() + static_cast<size_t>(y) * rgb.cols * pixelSize;
      const int32_t s = rgb.elemSize1() == 1
                            ? img::ConvertColorRow8(c, rgb.ptr<uint8_t>(y), sp, nullptr, 0, rgb.cols)
                            : img::ConvertColorRow16(c, rgb.ptr<uint16_t>(y), sp, nullptr, 0, rgb.cols);
      if (s != RC_SUCCESS) return false;
    }
    return true;
  }
  bool Run() { return Run(code); }
};

void RowsVsCvt(benchmark::State &state, uint32_t code, int cvCode) {
  Rows ours(code, Photo8());
  cv::Mat src = Photo8(), out;
  if (code >= COLORSPACE_TO_RGB)
    cv::cvtColor(Photo8(), src, cvCode == cv::COLOR_Lab2BGR ? cv::COLOR_BGR2Lab : cv::COLOR_BGR2YCrCb);
  Alternate(
      state, [] {}, [&] { return ours.Run(); }, [] {},
      [&] {
        cv::cvtColor(src, out, cvCode);
        return true;
      });
}

void Rows16Vs8(benchmark::State &state, uint32_t code) {
  Rows wide(code, Photo16()), narrow(code, Photo8());
  Alternate(
      state, [] {}, [&] { return wide.Run(); }, [] {}, [&] { return narrow.Run(); });
}

constexpr int kReps = 7;

}  // namespace

BENCHMARK_CAPTURE(VsComposite, hue60_bits24, Hue)->Iterations(kReps)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(VsComposite, saturation_bits24, Saturation)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(VsComposite, hue_sat_int_bits24, HueSatInt)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(VsComposite, tint_bits24, Tint)->Iterations(kReps)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(VsTransform, desaturate_bits24, Desaturate)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RowsVsCvt, ycrcb_forward_8, COLORSPACE_YCRCB, cv::COLOR_BGR2YCrCb)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RowsVsCvt, ycrcb_inverse_8, COLORSPACE_YCRCB + COLORSPACE_TO_RGB, cv::COLOR_YCrCb2BGR)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RowsVsCvt, lab_forward_8, COLORSPACE_LAB, cv::COLOR_BGR2Lab)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RowsVsCvt, lab_inverse_8, COLORSPACE_LAB + COLORSPACE_TO_RGB, cv::COLOR_Lab2BGR)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
// 16-bit forms: the peer column is our own 8-bit form.
BENCHMARK_CAPTURE(SixteenVsEight, hue60_bits48, Hue)->Iterations(kReps)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SixteenVsEight, saturation_bits48, Saturation)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SixteenVsEight, hue_sat_int_bits48, HueSatInt)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SixteenVsEight, tint_bits48, Tint)->Iterations(kReps)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SixteenVsEight, desaturate_bits48, Desaturate)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Rows16Vs8, ycrcb_forward_16, COLORSPACE_YCRCB)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Rows16Vs8, ycrcb_inverse_16, COLORSPACE_YCRCB + COLORSPACE_TO_RGB)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Rows16Vs8, lab_forward_16, COLORSPACE_LAB)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Rows16Vs8, lab_inverse_16, COLORSPACE_LAB + COLORSPACE_TO_RGB)
    ->Iterations(kReps)
    ->Unit(benchmark::kMillisecond);
