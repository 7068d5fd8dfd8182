// Row bands of a bitmap, each on a thread of the tool's own.
#include "bands.h"

#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

namespace imgtool {

bool CanRunInBands(const OpDescriptor &op, const BitmapRecord *bitmap) {
  return op.rowLocal && op.writesImage && !op.files && bitmap->BitsPerPixel > 8 && !bitmap->Region &&
         !bitmap->AttachedLut;
}

BitmapRecord BandOf(const BitmapRecord &bitmap, int32_t first, int32_t rows) {
  BitmapRecord band = bitmap;
  band.Height = rows;
  band.Pixels = bitmap.Pixels + static_cast<size_t>(first) * bitmap.BytesPerLine;
  band.DataSize = static_cast<uint64_t>(rows) * bitmap.BytesPerLine;
  band.Region = nullptr;
  return band;
}

int32_t CallInBands(const OpDescriptor &op, BitmapRecord *bitmap, const ArgValues &args, std::ostream &out,
                    int32_t bands) {
  if (bands > bitmap->Height) bands = bitmap->Height;
  if (bands <= 1 || !CanRunInBands(op, bitmap)) return op.call(bitmap, args, out);
  std::vector<BitmapRecord> records;
  for (int32_t i = 0; i < bands; ++i) {
    const int32_t first = static_cast<int32_t>(static_cast<int64_t>(bitmap->Height) * i / bands);
    const int32_t next = static_cast<int32_t>(static_cast<int64_t>(bitmap->Height) * (i + 1) / bands);
    records.push_back(BandOf(*bitmap, first, next - first));
  }
  std::vector<int32_t> statuses(bands, RC_SUCCESS);
  std::vector<std::ostringstream> reports(bands);
  {
    std::vector<std::jthread> threads;
    std::vector<int32_t> here{0};  // bands run on the calling thread
    for (int32_t i = 1; i < bands; ++i) {
      try {
        threads.emplace_back([&, i] { statuses[i] = op.call(&records[i], args, reports[i]); });
      } catch (const std::system_error &) {
        here.push_back(i);  // no thread to be had: this one does the band
      }
    }
    for (int32_t i : here) statuses[i] = op.call(&records[i], args, i == 0 ? out : reports[i]);
  }  // the threads join here
  UpdateBitmapInfo(bitmap);
  for (int32_t s : statuses)
    if (s < RC_SUCCESS) return s;
  return statuses[0];
}

}  // namespace imgtool
