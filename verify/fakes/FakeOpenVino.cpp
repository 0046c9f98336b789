// The functions of OpenVINO that the library calls. The library itself constructs tensors and
// shapes, so their allocations may fail; those inside the engine do not.

#include <algorithm>
#include <array>
#include <openvino/openvino.hpp>

#include "FakeEngines.h"

namespace {

/// What pointers to ov::Model and ov::Node really point to.
struct OpenNetwork {
  std::shared_ptr<const FakeNetwork> network;
  ov::element::Type type;    // of the input
  ov::PartialShape shape;    // of the input
  bool takesPixels = false;  // the input, [1, H, W, 3], is divided by 255 and becomes planes
};

// Only these functions dereference such pointers.
// NOLINTBEGIN(cppcoreguidelines-pro-type-reinterpret-cast)
template <class Object>
std::shared_ptr<Object> asEngineObject(const std::shared_ptr<const OpenNetwork>& network) {
  using Mutable = std::remove_const_t<Object>;
  return {network, reinterpret_cast<Mutable*>(const_cast<OpenNetwork*>(network.get()))};
}
template <class Object>
const OpenNetwork& networkOf(const std::shared_ptr<Object>& object) {
  return *reinterpret_cast<const OpenNetwork*>(object.get());
}
template <class Object>
std::shared_ptr<const OpenNetwork> shareNetwork(const std::shared_ptr<Object>& object) {
  return {object, &networkOf(object)};
}
// NOLINTEND(cppcoreguidelines-pro-type-reinterpret-cast)

std::string dimensionText(const ov::Dimension& dimension) {
  return dimension.is_static() ? std::to_string(dimension.get_interval().get_min_val()) : "?";
}

template <class List, class Text>
std::string listText(const List& list, const Text& textOf) {
  std::string text = "[";
  for (const auto& entry : list) {
    if (text.size() > 1) text += ',';
    text += textOf(entry);
  }
  text += ']';
  return text;
}

}  // namespace

namespace ov {

struct ITensor {
  element::Type type;
  Shape shape;
  std::vector<float> memory;  // also for bytes: one float of memory for each

  void resize() {
    std::size_t count = 1;
    for (const std::size_t length : shape) count *= length;
    memory.resize(count, -12345.0F);  // the initial content of an engine's memory is arbitrary
  }
};
struct ICompiledModel {
  Output<const Node> input;
};
struct IAsyncInferRequest {
  std::shared_ptr<const OpenNetwork> network;
  Tensor input;
  std::vector<Tensor> outputs;
};
class Core::Impl {};

Exception::Exception(const std::string& text) : std::runtime_error(text) {}
Exception::~Exception() = default;
void Exception::create(const char*, int, const std::string& text) { throw Exception(text); }

Shape::Shape(const std::initializer_list<std::size_t>& lengths)
    : std::vector<std::size_t>(lengths) {}
Shape::Shape(const std::vector<std::size_t>& lengths) : std::vector<std::size_t>(lengths) {}
Shape::Shape(const Shape& other) = default;
Shape::Shape() = default;
Shape::~Shape() = default;
Shape& Shape::operator=(const Shape& other) = default;
Shape& Shape::operator=(Shape&& other) noexcept = default;
Shape::const_reference Shape::operator[](std::ptrdiff_t i) const { return begin()[i]; }
std::string Shape::to_string() const {
  return listText(*this, [](std::size_t length) { return std::to_string(length); });
}

std::ostream& operator<<(std::ostream& out, const Shape& shape) { return out << shape.to_string(); }

Interval::Interval(value_type value) : m_min_val(value), m_max_val(value) {}
bool Interval::operator==(const Interval& other) const {
  return m_min_val == other.m_min_val && m_max_val == other.m_max_val;
}
Dimension::Dimension(value_type length)
    : m_dimension(length == -1 ? Interval() : Interval(length)) {}
PartialShape::PartialShape(std::initializer_list<Dimension> dimensions)
    : PartialShape(true, std::vector<Dimension>(dimensions)) {}
PartialShape::PartialShape(std::vector<Dimension> dimensions)
    : PartialShape(true, std::move(dimensions)) {}
PartialShape::PartialShape(bool hasRank, std::vector<Dimension> dimensions)
    : m_rank_is_static(hasRank), m_dimensions(std::move(dimensions)) {}
bool PartialShape::compatible(const PartialShape& other) const {
  return std::ranges::equal(m_dimensions, other.m_dimensions,
                            [](const Dimension& a, const Dimension& b) {
                              return a.is_dynamic() || b.is_dynamic() || a == b;
                            });
}
bool PartialShape::operator!=(const PartialShape& other) const {
  return m_dimensions != other.m_dimensions;
}
Shape PartialShape::to_shape() const {
  Shape shape;
  for (const Dimension& d : m_dimensions)
    shape.push_back(static_cast<std::size_t>(d.get_interval().get_min_val()));
  return shape;
}
std::string PartialShape::to_string() const { return listText(m_dimensions, dimensionText); }
std::string element::Type::to_string() const {
  return *this == u8 ? "u8" : *this == i32 ? "i32" : "f32";
}
Layout::Layout(const std::string&) {}
Any::~Any() = default;
Allocator::Allocator() = default;
Allocator::~Allocator() = default;

Tensor::Tensor(const element::Type& type, const Shape& shape, const Allocator&)
    : _impl(std::make_shared<ITensor>()) {
  _impl->type = type;
  set_shape(shape);
}
Tensor::~Tensor() = default;
void Tensor::set_shape(const Shape& shape) {
  _impl->shape = shape;
  _impl->resize();
}
const element::Type& Tensor::get_element_type() const { return _impl->type; }
const Shape& Tensor::get_shape() const { return _impl->shape; }
std::size_t Tensor::get_size() const { return _impl->memory.size(); }
void* Tensor::data() { return _impl->memory.data(); }
void* Tensor::data(const element::Type&) { return data(); }
const void* Tensor::data(const element::Type&) const { return _impl->memory.data(); }

Output<const Node>::Output(const std::shared_ptr<const Node>& node, std::size_t index)
    : m_node(node), m_index(index) {}
const element::Type& Output<const Node>::get_element_type() const { return networkOf(m_node).type; }
const PartialShape& Output<const Node>::get_partial_shape() const {
  return networkOf(m_node).shape;
}

Core::Core(const std::string&) {
  const EngineMemory own;
  _impl = std::make_shared<Impl>();
}
std::vector<std::string> Core::get_available_devices() const {
  return {"CPU", "GPU.0 of the fake engine"};
}
std::shared_ptr<Model> Core::read_model(const std::string& file, const std::string&,
                                        const AnyMap&) const {
  const EngineMemory own;
  std::shared_ptr<const FakeNetwork> network = findFakeNetwork(file);
  if (!network) Exception::create("", 0, "the fake engine has no network " + file);
  const std::vector<Dimension> shape(network->input.begin(), network->input.end());
  const element::Type type = network->takesBytes ? element::u8 : element::f32;
  return asEngineObject<Model>(
      std::make_shared<OpenNetwork>(OpenNetwork{std::move(network), type, shape}));
}
CompiledModel Core::compile_model(const std::string& file, const std::string& device,
                                  const AnyMap& properties) {
  return compile_model(std::shared_ptr<const Model>(read_model(file, "", {})), device, properties);
}
CompiledModel Core::compile_model(const std::shared_ptr<const Model>& model,
                                  const std::string& device, const AnyMap&) {
  const EngineMemory own;
  if (!hasFakeDevice(device)) Exception::create("", 0, "the fake engine has no device " + device);
  auto compiled = std::make_shared<ICompiledModel>();
  compiled->input = {asEngineObject<const Node>(shareNetwork(model)), 0};
  return {compiled, nullptr};
}

CompiledModel::CompiledModel(const std::shared_ptr<ICompiledModel>& impl,
                             const std::shared_ptr<void>& so)
    : _impl(impl), _so(so) {}
CompiledModel::~CompiledModel() = default;
const Output<const Node>& CompiledModel::input() const { return _impl->input; }
const Output<const Node>& CompiledModel::input(std::size_t) const { return _impl->input; }
InferRequest CompiledModel::create_infer_request() {
  const EngineMemory own;
  auto request = std::make_shared<IAsyncInferRequest>();
  request->network = shareNetwork(_impl->input.get_node_shared_ptr());
  request->input = Tensor(request->network->type, request->network->shape.to_shape());
  for (const FakeTensor& output : request->network->network->outputs)
    request->outputs.emplace_back(output.isInteger ? element::i32 : element::f32, output.shape);
  return {request, nullptr};
}
std::shared_ptr<const Node> Output<const Node>::get_node_shared_ptr() const { return m_node; }

InferRequest::InferRequest(const std::shared_ptr<IAsyncInferRequest>& impl,
                           const std::shared_ptr<void>& so)
    : _impl(impl), _so(so) {}
InferRequest::~InferRequest() = default;
Tensor InferRequest::get_input_tensor() { return _impl->input; }
Tensor InferRequest::get_input_tensor(std::size_t) { return _impl->input; }
void InferRequest::set_input_tensor(const Tensor& tensor) { _impl->input = tensor; }
Tensor InferRequest::get_output_tensor() { return _impl->outputs.at(0); }
Tensor InferRequest::get_output_tensor(std::size_t index) { return _impl->outputs.at(index); }

static FakeTensor floatsOf(const Tensor& input, bool isPixels) {
  FakeTensor floats{input.get_shape(), {}};
  if (!isPixels) {
    const float* const numbers = input.data<const float>();
    floats.numbers.assign(numbers, numbers + input.get_size());
    return floats;
  }
  const auto* const bytes = static_cast<const std::uint8_t*>(input.data(element::dynamic));
  const std::size_t height = floats.shape[1];
  const std::size_t width = floats.shape[2];
  floats.shape = {1, 3, height, width};
  for (std::size_t i = 0; i < input.get_size(); ++i) {
    const std::size_t pixel = i % (height * width);
    const std::size_t plane = i / (height * width);
    floats.numbers.push_back(static_cast<float>(bytes[3 * pixel + plane]) / 255.0F);
  }
  return floats;
}

void InferRequest::infer() {
  const EngineMemory own;
  const Tensor& input = _impl->input;
  const OpenNetwork& open = *_impl->network;
  PartialShape shape(std::vector<Dimension>(input.get_shape().begin(), input.get_shape().end()));
  if (!open.shape.compatible(shape)) Exception::create("", 0, "the input has another shape");
  inputChecksum.add(input.data(element::dynamic),
                    input.get_size() * (open.type == element::u8 ? 1 : sizeof(float)));
  const FakeNetwork& network = *open.network;
  const std::vector<FakeTensor> outputs =
      network.compute ? network.compute(floatsOf(input, open.takesPixels)) : network.outputs;
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    const FakeTensor& output = outputs[i];
    if (i == _impl->outputs.size())
      _impl->outputs.emplace_back(output.isInteger ? element::i32 : element::f32, output.shape);
    _impl->outputs[i].set_shape(output.shape);
    std::ranges::copy(output.numbers, static_cast<float*>(_impl->outputs[i].data()));
  }
}
void InferRequest::cancel() {}

namespace preprocess {

class InputTensorInfo::InputTensorInfoImpl {};
class InputModelInfo::InputModelInfoImpl {};
class PreProcessSteps::PreProcessStepsImpl {};
class OutputTensorInfo::OutputTensorInfoImpl {};
struct InputInfo::InputInfoImpl {
  InputTensorInfo tensor;
  InputModelInfo model;
  PreProcessSteps steps;
};
struct OutputInfo::OutputInfoImpl {
  OutputTensorInfo tensor;
};
struct PrePostProcessor::PrePostProcessorImpl {
  std::shared_ptr<const OpenNetwork> network;
  InputInfo input;
  OutputInfo output;
};

InputTensorInfo::InputTensorInfo() = default;
InputTensorInfo::~InputTensorInfo() = default;
InputModelInfo::InputModelInfo() = default;
InputModelInfo::~InputModelInfo() = default;
PreProcessSteps::PreProcessSteps() = default;
PreProcessSteps::~PreProcessSteps() = default;
OutputTensorInfo::OutputTensorInfo() = default;
OutputTensorInfo::~OutputTensorInfo() = default;
InputInfo::InputInfo() : m_impl(new InputInfoImpl) {}
InputInfo::~InputInfo() = default;
OutputInfo::OutputInfo() : m_impl(new OutputInfoImpl) {}
OutputInfo::~OutputInfo() = default;

InputTensorInfo& InputTensorInfo::set_element_type(const element::Type&) { return *this; }
InputTensorInfo& InputTensorInfo::set_layout(const Layout&) { return *this; }
InputTensorInfo& InputTensorInfo::set_color_format(const ColorFormat&,
                                                   const std::vector<std::string>&) {
  return *this;
}
InputModelInfo& InputModelInfo::set_layout(const Layout&) { return *this; }
PreProcessSteps& PreProcessSteps::convert_element_type(const element::Type&) { return *this; }
PreProcessSteps& PreProcessSteps::convert_color(const ColorFormat&) { return *this; }
PreProcessSteps& PreProcessSteps::scale(const std::vector<float>&) { return *this; }
OutputTensorInfo& OutputTensorInfo::set_element_type(const element::Type&) { return *this; }
InputTensorInfo& InputInfo::tensor() { return m_impl->tensor; }
InputModelInfo& InputInfo::model() { return m_impl->model; }
PreProcessSteps& InputInfo::preprocess() { return m_impl->steps; }
OutputTensorInfo& OutputInfo::tensor() { return m_impl->tensor; }

PrePostProcessor::PrePostProcessor(const std::shared_ptr<Model>& model) {
  const EngineMemory own;
  m_impl = std::make_unique<PrePostProcessorImpl>();
  m_impl->network = shareNetwork(model);
}
PrePostProcessor::~PrePostProcessor() = default;
InputInfo& PrePostProcessor::input() { return m_impl->input; }
OutputInfo& PrePostProcessor::output(std::size_t) { return m_impl->output; }
// The only steps that the library asks for: bytes of pixels become planes of floats.
std::shared_ptr<Model> PrePostProcessor::build() {
  const EngineMemory own;
  auto converted = std::make_shared<OpenNetwork>(*m_impl->network);
  if (converted->type != element::u8) {
    const std::vector<Dimension> planes(converted->shape.begin(), converted->shape.end());
    converted->type = element::u8;
    converted->shape = {planes.at(0), planes.at(2), planes.at(3), planes.at(1)};
    converted->takesPixels = true;
  }
  return asEngineObject<Model>(converted);
}

}  // namespace preprocess
}  // namespace ov

const ov::Version ov::get_openvino_version() noexcept { return {"20 and more, fake", "fake"}; }
