// The native part of the Python binding: a bitmap owned by the kernel, the
// operation descriptors as data, one generic call through a descriptor, and
// views of the pixel memory. imgcolor/__init__.py builds the typed methods,
// the pixel-order conversions and the exception classes on top of it.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "image_io.h"
#include "imgcolor.h"
#include "registry.h"

namespace py = pybind11;

namespace {

// A record and the kernel memory it points to, freed with it. Views of the
// pixels share ownership, so a view never outlives the memory it shows.
struct Owned {
  BitmapRecord record{};
  ~Owned() {
    if (record.StructSize != 0) FreeBitmap(&record);
  }
};

// The Python-visible bitmap. `owned` is replaced by a copy before an
// operation runs while views of the current memory are alive: operations may
// free or reallocate the pixels (a depth conversion, a merge), and a view must
// keep pointing at valid memory. Such views keep the pixels as they were.
struct Bitmap {
  std::shared_ptr<Owned> owned = std::make_shared<Owned>();
  bool busy = false;  // a call on another Python thread holds the record
  BitmapRecord *get() { return &owned->record; }
};

// imgcolor.Error and its subclass imgcolor.Cancelled, set once at import
// (__init__.py); raised with (status, name, message).
py::object &ErrorClass(bool cancelled) {
  // Never destroyed: the interpreter is gone by the time statics are.
  static auto *error = new py::object, *cancel = new py::object;
  return cancelled ? *cancel : *error;
}

[[noreturn]] void Raise(int32_t status, const std::string &context) {
  py::object cls = ErrorClass(status == 0);
  if (!cls) throw std::runtime_error(context + ": status " + std::to_string(status));
  PyErr_SetObject(
      cls.ptr(),
      py::make_tuple(status, Q_StatusName(status), context + ": " + Q_StatusMessage(status)).ptr());
  throw py::error_already_set();
}

void Check(int32_t status, const std::string &context) {
  if (status != RC_SUCCESS) Raise(status, context);
}

// Detaches the bitmap from live views (see Bitmap).
void Detach(Bitmap &b) {
  if (b.owned.use_count() == 1 || !(b.get()->Flags & BITMAP_ALLOCATED)) return;
  auto copy = std::make_shared<Owned>();
  Check(CopyBitmap(&copy->record, b.get(), BITMAP_RECORD_SIZE), "copying the bitmap away from its views");
  b.owned = std::move(copy);
}

// Marks a bitmap as in use for the length of one call (the record is not
// guarded by a lock while the GIL is released).
class Busy {
 public:
  explicit Busy(Bitmap &b) : b_(b) {
    if (b.busy) throw py::value_error("the bitmap is in use by a call on another thread");
    b.busy = true;
  }
  ~Busy() { b_.busy = false; }
  Busy(const Busy &) = delete;
  Busy &operator=(const Busy &) = delete;

 private:
  Bitmap &b_;
};

// The status callback: calls the Python callable with the percentage. False
// cancels (the operation then returns 0); an exception cancels too and is
// raised again once the call has returned.
constexpr int32_t kCancelled = 0;  // the operation returns it: imgcolor.Cancelled
struct Progress {
  py::object callable;
  std::optional<py::error_already_set> error;
};

int32_t ProgressTrampoline(int32_t percent, void *user) {
  auto *p = static_cast<Progress *>(user);
  py::gil_scoped_acquire gil;
  if (p->error) return kCancelled;
  try {
    py::object answer = p->callable(percent);
    if (answer.ptr() == Py_False) return kCancelled;
  } catch (py::error_already_set &e) {
    p->error.emplace(std::move(e));
    return kCancelled;
  }
  return RC_SUCCESS;
}

// Runs `work` without the GIL, with the progress callable (or None) as this
// thread's status callback, restoring the previous one after.
// Puts back the thread's previous status callback, also when the call throws.
class CallbackScope {
 public:
  CallbackScope(StatusCallback callback, void *data) : previous_(GetStatusCallback(&previousData_)) {
    SetStatusCallback(callback, data);
  }
  ~CallbackScope() { SetStatusCallback(previous_, previousData_); }
  CallbackScope(const CallbackScope &) = delete;
  CallbackScope &operator=(const CallbackScope &) = delete;

 private:
  void *previousData_ = nullptr;
  StatusCallback previous_;
};

template <class Work>
int32_t WithProgress(const py::object &progress, Work &&work) {
  Progress p{progress, std::nullopt};
  int32_t status = 0;
  {
    py::gil_scoped_release release;
    CallbackScope scope(progress.is_none() ? nullptr : ProgressTrampoline, progress.is_none() ? nullptr : &p);
    status = work();
  }
  if (p.error) throw std::move(*p.error);
  return status;
}

const imgtool::OpDescriptor &FindOp(const std::string &name) {
  const imgtool::OpDescriptor *op = imgtool::FindOperation(name);
  if (!op) throw py::key_error("no operation named " + name);
  return *op;
}

const char *TypeName(imgtool::ArgType t) {
  switch (t) {
    case imgtool::ArgType::Int:
      return "int";
    case imgtool::ArgType::UInt:
      return "uint";
    case imgtool::ArgType::Bool:
      return "bool";
    case imgtool::ArgType::Enum:
      return "enum";
    case imgtool::ArgType::Colour:
      return "colour";
    case imgtool::ArgType::IntList:
      return "int list";
  }
  return "";
}

// Every descriptor as a dict: what __init__.py needs to build a method.
py::list Operations() {
  py::list ops;
  for (const imgtool::OpDescriptor &op : imgtool::Operations()) {
    py::list args;
    for (const imgtool::ArgSpec &a : op.args) {
      py::list values;
      for (const imgtool::EnumValue &v : a.values) values.append(py::make_tuple(v.name, v.value, v.help));
      args.append(py::dict(py::arg("name") = a.name, py::arg("type") = TypeName(a.type),
                           py::arg("unit") = a.unit, py::arg("min") = a.min, py::arg("max") = a.max,
                           py::arg("default") = a.defaultValue, py::arg("help") = a.help,
                           py::arg("values") = values, py::arg("min_count") = a.minCount,
                           py::arg("max_count") = a.maxCount));
    }
    ops.append(py::dict(
        py::arg("name") = op.name, py::arg("export") = op.exportName, py::arg("family") = op.family.title,
        py::arg("summary") = op.summary, py::arg("help") = op.help, py::arg("args") = args,
        py::arg("kinds") = op.kinds, py::arg("kind_names") = imgtool::KindNames(op.kinds),
        py::arg("writes_image") = op.writesImage, py::arg("files") = static_cast<bool>(op.files),
        py::arg("min_inputs") = op.minInputs, py::arg("max_inputs") = op.maxInputs));
  }
  return ops;
}

// Runs the operation `name` on `self` with the arguments in the command
// line's text form (checked against the descriptor's ranges). `files` runs
// the several-image form with `self` and `others` as inputs and returns the
// images it made; otherwise the one-bitmap form. Returns (report, images).
py::tuple Call(Bitmap &self, const std::string &name, const std::map<std::string, std::string> &given,
               const py::object &progress, bool files, std::vector<Bitmap *> others) {
  const imgtool::OpDescriptor &op = FindOp(name);
  imgtool::ArgValues values;
  for (const auto &[key, text] : given) {
    const imgtool::ArgSpec *arg = nullptr;
    for (const imgtool::ArgSpec &a : op.args)
      if (a.name == key) arg = &a;
    if (!arg) throw py::type_error(name + " takes no argument " + key);
    std::string error;
    if (!imgtool::ParseArg(*arg, text, values, error)) throw py::value_error(name + ": " + error);
  }
  imgtool::ApplyDefaults(op, values);
  if (files && !op.files) throw py::value_error(name + " takes one bitmap");
  const int32_t inputs = 1 + static_cast<int32_t>(others.size());
  if (files && (inputs < op.minInputs || inputs > op.maxInputs))
    throw py::value_error(name + " takes " + std::to_string(op.minInputs) + " to " +
                          std::to_string(op.maxInputs) + " bitmaps");
  if (!files && !others.empty()) throw py::value_error(name + " takes one bitmap");

  std::vector<std::unique_ptr<Busy>> guards;
  std::vector<BitmapRecord *> records;
  for (Bitmap *b : [&] {
         std::vector<Bitmap *> all{&self};
         all.insert(all.end(), others.begin(), others.end());
         return all;
       }()) {
    if (std::find(records.begin(), records.end(), b->get()) == records.end())
      guards.push_back(std::make_unique<Busy>(*b));
    Detach(*b);
    records.push_back(b->get());
  }
  std::ostringstream report;
  imgtool::OutputImages outputs;
  const int32_t status = WithProgress(progress, [&] {
    return files ? op.files(records, outputs, values, report) : op.call(records[0], values, report);
  });
  if (status != RC_SUCCESS) Raise(status, op.exportName);
  py::list images;
  for (size_t i = 0; i < outputs.size(); ++i) {
    auto out = std::make_unique<Bitmap>();
    Check(CopyBitmap(out->get(), outputs.bitmap(i), BITMAP_RECORD_SIZE), "copying an output bitmap");
    images.append(py::cast(out.release(), py::return_value_policy::take_ownership));
  }
  return py::make_tuple(report.str(), images);
}

// Sample size in bytes and samples per pixel of the kinds a view shows
// directly; 0 for palette and 5-5-5 bitmaps.
std::pair<int, int> SampleLayout(const BitmapRecord &r) {
  if (r.ColorOrder == ORDER_GRAY && r.BitsPerPixel == 8) return {1, 1};
  if (r.ColorOrder == ORDER_GRAY && (r.BitsPerPixel == 12 || r.BitsPerPixel == 16)) return {2, 1};
  switch (r.BitsPerPixel) {
    case 24:
      return {1, 3};
    case 32:
      return {1, 4};
    case 48:
      return {2, 3};
    case 64:
      return {2, 4};
    default:
      return {0, 0};
  }
}

// The pixels in stored sample order, top image row first, as an array that
// shares the memory (negative row stride for bottom-first bitmaps). `ramp`:
// an 8-bit palette bitmap read as its indices (the gray-ramp palette).
py::array StoredView(Bitmap &b, bool ramp) {
  BitmapRecord &r = *b.get();
  if (!(r.Flags & BITMAP_ALLOCATED) || !r.Pixels) throw py::value_error("the bitmap has no pixels");
  const auto [size, channels] = ramp && r.BitsPerPixel == 8 ? std::pair{1, 1} : SampleLayout(r);
  if (size == 0) throw py::value_error("palette and 16-bit colour bitmaps have no direct view");
  std::vector<py::ssize_t> shape{r.Height, r.Width}, strides;
  const auto line = static_cast<py::ssize_t>(r.BytesPerLine);
  uint8_t *top = r.Pixels;
  if (r.Orientation == ORIENT_BOTTOM_FIRST) top += static_cast<size_t>(r.Height - 1) * r.BytesPerLine;
  strides = {r.Orientation == ORIENT_BOTTOM_FIRST ? -line : line, size * channels};
  if (channels > 1) {
    shape.push_back(channels);
    strides.push_back(size);
  }
  // The capsule keeps the memory's owner alive as long as the array.
  auto *keep = new std::shared_ptr<Owned>(b.owned);
  py::capsule base(keep, [](void *p) { delete static_cast<std::shared_ptr<Owned> *>(p); });
  if (size == 1) return py::array_t<uint8_t>(shape, strides, top, base);
  return py::array_t<uint16_t>(shape, strides, reinterpret_cast<uint16_t *>(top), base);
}

std::unique_ptr<Bitmap> Allocate(int32_t width, int32_t height, int32_t bits, int32_t order) {
  auto b = std::make_unique<Bitmap>();
  Check(AllocateBitmap(b->get(), BITMAP_RECORD_SIZE, MEMORY_CONVENTIONAL, width, height, bits, order, nullptr,
                       ORIENT_TOP_FIRST, nullptr, 0),
        "AllocateBitmap");
  return b;
}

}  // namespace

PYBIND11_MODULE(_imgcolor, m) {
  m.doc() = "Native part of the imgcolor binding; use the imgcolor package.";
  m.def("_set_error_classes", [](py::object error, py::object cancelled) {
    ErrorClass(false) = std::move(error);
    ErrorClass(true) = std::move(cancelled);
  });
  m.def("status_name", [](int32_t s) { return std::string(Q_StatusName(s)); });
  m.def("status_message", [](int32_t s) { return std::string(Q_StatusMessage(s)); });
  m.def("operations", &Operations);
  m.attr("CANCELLED") = kCancelled;

  py::class_<Bitmap>(m, "Bitmap")
      .def_static("allocate", &Allocate, py::arg("width"), py::arg("height"), py::arg("bits"),
                  py::arg("order"))
      .def_static(
          "read",
          [](const std::string &path) {
            imgtool::Bitmap image;
            std::string error;
            if (!imgtool::ReadImageFile(path, image, error)) throw py::value_error(path + ": " + error);
            auto b = std::make_unique<Bitmap>();
            Check(CopyBitmap(b->get(), image.get(), BITMAP_RECORD_SIZE), "CopyBitmap");
            return b;
          },
          py::arg("path"))
      .def("copy",
           [](Bitmap &self) {
             auto b = std::make_unique<Bitmap>();
             Check(CopyBitmap(b->get(), self.get(), BITMAP_RECORD_SIZE), "CopyBitmap");
             return b;
           })
      .def(
          "convert",
          [](Bitmap &self, int32_t bits, int32_t order, int32_t dither, int32_t fixedPalette) {
            Busy busy(self);
            Detach(self);
            int32_t first = 0, second = 0;
            SwapKernelSettings(dither, fixedPalette, &first, &second);
            const int32_t status =
                ConvertBitmapFormat(self.get(), self.get(), BITMAP_RECORD_SIZE, bits, order, nullptr, 0, 0);
            SwapKernelSettings(first, second, nullptr, nullptr);
            Check(status, "ConvertBitmapFormat");
          },
          py::arg("bits"), py::arg("order"), py::arg("dither"), py::arg("fixed_palette"))
      .def("_stored_view", &StoredView, py::arg("ramp"))
      .def("_call", &Call)
      .def("_region",
           [](Bitmap &self, const std::string &shape, int32_t left, int32_t top, int32_t right,
              int32_t bottom, uint32_t combine) {
             Busy busy(self);
             const Rect r{left, top, right, bottom};
             if (shape == "clear") return Check(FreeBitmapRegion(self.get()), "FreeBitmapRegion");
             if (shape == "rect")
               return Check(SetBitmapRegionRect(self.get(), &r, combine), "SetBitmapRegionRect");
             Check(SetBitmapRegionEllipse(self.get(), &r, combine), "SetBitmapRegionEllipse");
           })
      .def_property_readonly("has_region", [](Bitmap &self) { return BitmapHasRegion(self.get()) == 1; })
      .def_property_readonly("width", [](Bitmap &self) { return self.get()->Width; })
      .def_property_readonly("height", [](Bitmap &self) { return self.get()->Height; })
      .def_property_readonly("bits", [](Bitmap &self) { return self.get()->BitsPerPixel; })
      .def_property_readonly("order", [](Bitmap &self) { return self.get()->ColorOrder; })
      .def_property_readonly("bottom_first",
                             [](Bitmap &self) { return self.get()->Orientation == ORIENT_BOTTOM_FIRST; })
      .def_property_readonly(
          "palette",
          [](Bitmap &self) {
            py::list entries;
            const BitmapRecord &r = *self.get();
            if (r.Palette && r.BitsPerPixel <= 8)
              for (int32_t i = 0; i < r.ColorsUsed && i < 256; ++i)
                entries.append(py::make_tuple(r.Palette[i].Red, r.Palette[i].Green, r.Palette[i].Blue));
            return entries;
          })
      .def("_rows", [](Bitmap &self) {
        // The stored bytes of every image row without padding, top first,
        // and the kind: what the recorded outputs of the test sweep hash.
        const BitmapRecord &r = *self.get();
        const uint64_t rowBits =
            static_cast<uint64_t>(r.Width) * (r.BitsPerPixel == 12 ? 16 : r.BitsPerPixel);
        const size_t rowBytes = (rowBits + 7) / 8;
        std::string out;
        for (int32_t y = 0; y < r.Height; ++y) {
          const uint8_t *row =
              r.Pixels + static_cast<uint64_t>(r.Orientation == ORIENT_BOTTOM_FIRST ? r.Height - 1 - y : y) *
                             r.BytesPerLine;
          out.append(reinterpret_cast<const char *>(row), rowBytes);
          if (rowBits % 8) out.back() = static_cast<char>(row[rowBits / 8] & (0xFF00u >> (rowBits % 8)));
        }
        return py::bytes(out);
      });
}
