// wrapper: the same library from C++ through imgcolor.hpp. The Bitmap class
// frees its memory itself, errors arrive as exceptions, and any callable can
// watch (and stop) the progress.
//
//   wrapper [DIR]    writes DIR/saturated.ppm
//
// Exits 0 when the colours changed inside the ellipse only, a bad
// argument was reported by name and the cancelled run was stopped.
#include <cstdio>
#include <imgcolor.hpp>
#include <string>

int main(int argc, char **argv) {
  const std::string dir = argc > 1 ? argv[1] : ".";
  imgcolor::Bitmap image(80, 60, 24);  // 24 bits, blue-green-red, zeroed
  for (int32_t y = 0; y < image.height(); ++y) {
    auto row = image.Row(y);  // the row's bytes: blue, green, red per pixel
    for (int32_t x = 0; x < image.width(); ++x) {
      row[3 * x] = 90;
      row[3 * x + 1] = static_cast<uint8_t>(100 + y);
      row[3 * x + 2] = static_cast<uint8_t>(120 + x);
    }
  }

  // Work inside an ellipse only: more saturation (+60 %, in tenths of a
  // percent), then more contrast while a lambda counts the progress reports.
  image.SetRegionEllipse({10, 10, 70, 50});
  image.ChangeBitmapSaturation(600);
  int32_t reports = 0;
  imgcolor::WithProgress([&](int32_t) { ++reports; }, [&] { image.ChangeBitmapContrast(200); });

  // A value out of range throws imgcolor::Error, which names the status.
  std::string refused;
  try {
    image.ChangeBitmapSaturation(5000);
  } catch (const imgcolor::Error &e) {
    refused = e.name();
  }

  // A callable returning false stops the operation.
  bool cancelled = false;
  try {
    imgcolor::WithProgress([](int32_t percent) { return percent < 50; },
                           [&] { image.ChangeBitmapContrast(100); });
  } catch (const imgcolor::Error &e) {
    cancelled = e.cancelled();
  }

  if (std::FILE *f = std::fopen((dir + "/saturated.ppm").c_str(), "wb")) {
    std::fprintf(f, "P6\n%d %d\n255\n", image.width(), image.height());
    for (int32_t y = 0; y < image.height(); ++y)
      for (int32_t x = 0; x < image.width(); ++x) {
        const uint8_t *p = &image.Row(y)[3 * x];
        const uint8_t rgb[3] = {p[2], p[1], p[0]};
        std::fwrite(rgb, 1, 3, f);
      }
    std::fclose(f);
  }

  // The centre moved away from gray (blue down), the corner did not.
  const bool centre = image.Row(30)[3 * 40] < 90, corner = image.Row(0)[0] == 90;
  std::printf("reports %d, refused with %s, cancelled %s, centre %s, corner %s\n", reports, refused.c_str(),
              cancelled ? "yes" : "no", centre ? "changed" : "same", corner ? "same" : "changed");
  const bool ok = reports > 0 && refused == "RC_INVALID_PARAMETER" && cancelled && centre && corner;
  std::printf("wrapper: %s\n", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
