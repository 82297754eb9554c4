// tarvo._core: the library's functions as Python calls them. Checks and messages are those of the Python layer
// above and of the library; here values only change their form. Every computation runs without the
// interpreter's lock, which is given back before the library's own lock is taken.
#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/variant.h>
#include <nanobind/stl/vector.h>
#include <tarvo/tarvo.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

#include "evaluation/evaluation.h"
#include "flow_files/flow_file.h"
#include "flow_picture/flow_picture.h"
#include "pictures/picture.h"

namespace nb = nanobind;
using namespace nb::literals;

namespace {

using Pixels = nb::ndarray<nb::ro, nb::ndim<3>, nb::device::cpu>;                // H x W x C of any element
using Floats = nb::ndarray<const float, nb::ndim<3>, nb::device::cpu>;           // H x W x C
using Mask = nb::ndarray<const std::uint8_t, nb::ndim<2>, nb::device::cpu>;      // H x W
template <class Element>
using Array = nb::ndarray<nb::numpy, Element>;
using Values = nb::typed<nb::dict, nb::str, nb::any>;

struct DeviceError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A new array that owns `data`, in C order.
template <class Element>
Array<Element> owning(Element* data, std::initializer_list<std::size_t> shape) {
  nb::capsule owner(data, [](void* memory) noexcept { delete[] static_cast<Element*>(memory); });
  return Array<Element>(data, shape, owner);
}

/// Planes as a new array, channels of a pixel side by side.
template <class Element>
Element* interleaved(const CTensor<float>& planes) {
  const int w = planes.sizeX(), h = planes.sizeY(), channels = planes.sizeZ();
  auto* const data = new Element[static_cast<std::size_t>(planes.size())];
  Element* to = data;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      for (int k = 0; k < channels; ++k) *to++ = static_cast<Element>(planes(x, y, k));
    }
  }
  return data;
}

template <class Element>
Array<Element> arrayOf(const CTensor<float>& planes) {
  Element* data = nullptr;
  {
    const nb::gil_scoped_release release;
    data = interleaved<Element>(planes);
  }
  const auto size = [](int n) { return static_cast<std::size_t>(n); };
  return owning(data, {size(planes.sizeY()), size(planes.sizeX()), size(planes.sizeZ())});
}

Array<bool> arrayOf(const std::vector<std::uint8_t>& mask, int width, int height) {
  auto* const data = new bool[mask.size()];
  std::transform(mask.begin(), mask.end(), data, [](std::uint8_t value) { return value != 0; });
  return owning(data, {static_cast<std::size_t>(height), static_cast<std::size_t>(width)});
}

Array<float> arrayOf(const std::vector<NFlow::Match>& matches) {
  static_assert(sizeof(NFlow::Match) == 5 * sizeof(float));
  auto* const data = new float[5 * matches.size()];
  if (!matches.empty()) std::memcpy(data, matches.data(), matches.size() * sizeof(NFlow::Match));
  return owning(data, {matches.size(), 5});
}

/// A tensor takes a copy, without the interpreter's lock.
CTensor<float> tensorOf(const Floats& array) {
  const float* const data = array.data();
  const std::int64_t rows = array.stride(0), columns = array.stride(1), channels = array.stride(2);
  const auto size = [&](std::size_t axis) { return static_cast<int>(array.shape(axis)); };
  const nb::gil_scoped_release release;
  CTensor<float> tensor(size(1), size(0), size(2));
  for (int k = 0; k < tensor.sizeZ(); ++k) {
    for (int y = 0; y < tensor.sizeY(); ++y) {
      const float* from = data + y * rows + k * channels;
      for (int x = 0; x < tensor.sizeX(); ++x, from += columns) tensor(x, y, k) = *from;
    }
  }
  return tensor;
}

NFlow::Image viewOf(const Pixels& pixels, float black, float white) {
  NFlow::Image image;
  image.data = pixels.data();
  image.width = static_cast<int>(pixels.shape(1));
  image.height = static_cast<int>(pixels.shape(0));
  // An axis of one element may have any stride.
  const auto stride = [&](std::size_t axis) { return pixels.shape(axis) > 1 ? pixels.stride(axis) : 1; };
  image.rowStride = stride(0);
  image.pixelStride = stride(1);
  image.channelStride = stride(2);
  image.channels = static_cast<int>(pixels.shape(2));
  image.type = pixels.dtype() == nb::dtype<std::uint8_t>()    ? NFlow::Image::Type::UInt8
               : pixels.dtype() == nb::dtype<std::uint16_t>() ? NFlow::Image::Type::UInt16
                                                              : NFlow::Image::Type::Float;
  image.black = black;
  image.white = white;
  return image;
}

void setMask(NFlow::Image& image, const std::optional<Mask>& mask, bool ignoreNaN) {
  image.ignoreNaN = ignoreNaN;
  if (!mask) return;
  image.mask = mask->data();
  image.maskRowStride = mask->shape(0) > 1 ? mask->stride(0) : 1;
  image.maskPixelStride = mask->shape(1) > 1 ? mask->stride(1) : 1;
}

/// One picture of a computation as the Python layer prepares it.
struct Picture {
  Pixels pixels;
  float black, white;
  std::optional<Mask> mask;
  bool ignoreNaN;

  NFlow::Image view() const {
    NFlow::Image image = viewOf(pixels, black, white);
    setMask(image, mask, ignoreNaN);
    return image;
  }
};

const NFlow::Option& optionNamed(const std::string& name) {
  for (const NFlow::Option& option : NFlow::optionTable()) {
    if (name == option.name) return option;
  }
  throw std::invalid_argument("no option is named " + name);
}

nb::object valueOf(const NFlow::Options& options, const NFlow::Option& option) {
  if (std::holds_alternative<NFlow::Solver NFlow::Options::*>(option.field)) {
    return nb::cast(NFlow::text(options, option));
  }
  if (const auto* const whole = std::get_if<int NFlow::Options::*>(&option.field)) {
    return nb::cast(options.**whole);
  }
  return nb::cast(options.*std::get<float NFlow::Options::*>(option.field));
}

/// What a signal's handler or the caller's function raises ends the computation.
NFlow::Watch watchOf(const nb::object& progress) {
  NFlow::Watch watch;
  watch.poll = [] {
    const nb::gil_scoped_acquire acquire;
    if (PyErr_CheckSignals() != 0) throw nb::python_error();
  };
  if (!progress.is_none()) {
    watch.progress = [progress = progress.ptr()](int done, int total) {
      const nb::gil_scoped_acquire acquire;
      const nb::handle function(progress);
      function(done, total);
    };
  }
  return watch;
}

nb::dict secondsOf(const NFlow::Seconds& seconds) {
  nb::dict result;
  result["total"] = seconds.total;
  result["smoothing"] = seconds.smoothing;
  result["transfer"] = seconds.transfer;
  result["matching"] = seconds.matching;
  result["variational"] = seconds.variational;
  result["downsampling"] = seconds.downsampling;
  result["warping"] = seconds.warping;
  result["fixed_point"] = seconds.fixedPoint;
  result["solver"] = seconds.solver;
  return result;
}

Values compute(const Picture& first, const Picture& second, const NFlow::Options& options,
                 const nb::object& progress) {
  const NFlow::Image image1 = first.view(), image2 = second.view();
  NFlow::Result result;
  {
    const NFlow::Watch watch = watchOf(progress);
    const nb::gil_scoped_release release;
    result = NFlow::compute(image1, image2, options, watch);
  }
  Values values;
  values["forward"] = arrayOf<float>(result.forward);
  values["backward"] = nb::none();
  values["occlusion"] = nb::none();
  if (options.backward) values["backward"] = arrayOf<float>(result.backward);
  if (options.occlusion) values["occlusion"] = arrayOf(result.occlusion, image1.width, image1.height);
  values["matches"] = arrayOf(result.matches);
  values["seconds"] = secondsOf(result.forwardWork.seconds);
  values["seconds_backward"] = nb::none();
  if (options.backward) values["seconds_backward"] = secondsOf(result.backwardWork.seconds);
  values["device"] = result.device;
  return values;
}

Values evaluate(const Floats& flow, const Floats& truth) {
  const CTensor<float> a = tensorOf(flow), b = tensorOf(truth);
  const Evaluation found = [&] {
    const nb::gil_scoped_release release;
    return evaluate(a, b);
  }();
  Values values;
  values["epe"] = found.epe;
  values["median"] = found.median;
  values["percentile99"] = found.percentile99;
  values["angular"] = found.angle;
  values["fl_all"] = found.outliers;
  values["used"] = found.used;
  values["missing"] = found.missing;
  return values;
}

Array<std::uint8_t> color(const Floats& flow, const std::string& wheel, std::variant<double, std::string> maxMotion,
                          bool legend) {
  const CTensor<float> field = tensorOf(flow);
  CTensor<float> picture;
  {
    const nb::gil_scoped_release release;
    tool::Colours colours{tool::wheelNamed(wheel)};
    if (const auto* const scale = std::get_if<double>(&maxMotion)) {
      colours.scale = *scale;
    } else {
      colours.scale = std::get<std::string>(maxMotion) == "auto" ? tool::usualMotion(field) : tool::longestMotion(field);
    }
    picture = tool::colourPicture(field, colours);
    if (legend) tool::drawLegend(picture, colours);
  }
  return arrayOf<std::uint8_t>(picture);
}

void bindOptions(nb::module_& module) {
  nb::class_<NFlow::Options>(module, "Options")
      .def(nb::init<>())
      .def_static("preset", &NFlow::preset, "name"_a)
      .def_rw("matches", &NFlow::Options::matches)
      .def_rw("backward", &NFlow::Options::backward)
      .def_rw("occlusion", &NFlow::Options::occlusion)
      .def(
          "get",
          [](const NFlow::Options& options, const std::string& name) {
            return valueOf(options, optionNamed(name));
          },
          nb::sig("def get(self, name: str) -> float | int | str"))
      .def("set", [](NFlow::Options& options, const std::string& name, const std::string& value) {
        NFlow::set(options, optionNamed(name), value);
      });
  module.def("preset_names", &NFlow::presetNames);
  module.def("option_names", [] {
    std::vector<std::string> names;
    for (const NFlow::Option& option : NFlow::optionTable()) names.emplace_back(option.name);
    return names;
  });
  module.def("option_allowed", [](const std::string& name) { return NFlow::allowed(optionNamed(name)); });
  module.def("option_text", [](const std::string& name) { return optionNamed(name).text; });
}

void bindFlow(nb::module_& module) {
  nb::class_<Picture>(module, "Picture")
      .def(
          "__init__",
          [](Picture* self, Pixels pixels, float black, float white, std::optional<Mask> mask,
             bool ignoreNaN) {
            new (self) Picture{std::move(pixels), black, white, std::move(mask), ignoreNaN};
          },
          "pixels"_a.noconvert(), "black"_a, "white"_a, "mask"_a.none(), "ignore_nan"_a,
          nb::sig("def __init__(self, pixels: NDArray[Any], black: float, white: float, "
                  "mask: NDArray[numpy.uint8] | None, ignore_nan: bool) -> None"))
      .def_prop_ro("height", [](const Picture& picture) { return picture.pixels.shape(0); })
      .def_prop_ro("width", [](const Picture& picture) { return picture.pixels.shape(1); });
  module.def("compute", &compute, "image1"_a, "image2"_a, "options"_a, "progress"_a.none());
  module.def("consistency", [](const Floats& forward, const Floats& backward) {
    const CTensor<float> a = tensorOf(forward), b = tensorOf(backward);
    std::vector<std::uint8_t> mask;
    {
      const nb::gil_scoped_release release;
      mask = NFlow::consistency(a, b);
    }
    return arrayOf(mask, a.sizeX(), a.sizeY());
  });
  module.def("warp", [](const Floats& image, const Floats& flow, float outside) {
    const CTensor<float> a = tensorOf(image), b = tensorOf(flow);
    CTensor<float> warped;
    {
      const nb::gil_scoped_release release;
      warped = NFlow::warp(a, b, outside);
    }
    return arrayOf<float>(warped);
  });
  module.def("evaluate", &evaluate, "flow"_a, "truth"_a);
  module.def("color", &color, "flow"_a, "wheel"_a, "max_motion"_a, "legend"_a);
  module.def("flow_formats", [] {
    std::vector<std::string> names;  // and the ending of each
    for (const tool::FlowFormat& format : tool::flowFormats()) {
      names.emplace_back(format.name);
      names.emplace_back(format.ending);
    }
    return names;
  });
  module.def("read_flow", [](const std::string& path) {
    const CTensor<float> flow = [&path] {
      const nb::gil_scoped_release release;
      return tool::readFlow(path);
    }();
    return arrayOf<float>(flow);
  });
  module.def("read_image", [](const std::string& path) {
    CTensor<float> picture;
    {
      const nb::gil_scoped_release release;
      picture = readPicture(path, nullptr);
    }
    return arrayOf<float>(picture);
  });
  module.def("write_flow", [](const std::string& path, const Floats& flow, const std::string& format) {
    const CTensor<float> field = tensorOf(flow);
    const nb::gil_scoped_release release;
    return tool::writeFlow(path, field, *tool::formatNamed(format)).dropped;
  });
  module.def("memory_required", [](int width, int height, const NFlow::Options& options) {
    const NFlow::Memory memory = NFlow::memoryRequired(width, height, options);
    return memory.device + memory.host;
  });
}

void bindDevice(nb::module_& module) {
  module.def("version", &NDevice::version);
  module.def("devices", &NDevice::devices, nb::call_guard<nb::gil_scoped_release>());
  module.def("current_device", &NDevice::current, nb::call_guard<nb::gil_scoped_release>());
  module.def("select_device", &NDevice::select, nb::call_guard<nb::gil_scoped_release>());
  module.def("set_threads", nb::overload_cast<int>(&NDevice::threads));
  module.def("threads", nb::overload_cast<>(&NDevice::threads));
  module.def("fail_call", &NDevice::failCall);
  module.def("memory_use", [] {
    const NDevice::MemoryUse use = NDevice::memoryUse();
    return nb::typed<nb::tuple, std::size_t, std::size_t>(nb::make_tuple(use.inUse, use.kept));
  });
}

}  // namespace

NB_MODULE(_core, module) {
  module.doc() = "The compiled part of tarvo. Private: use the package tarvo.";
  nb::exception<DeviceError>(module, "DeviceError", PyExc_RuntimeError);
  NReport::silence();
  NDevice::onError([](const std::string& message) {
    throw DeviceError(message.substr(0, message.find_last_not_of('\n') + 1));
  });
  bindOptions(module);
  bindFlow(module);
  bindDevice(module);
}
