// The functions of OpenVINO that the library calls. The library itself constructs tensors and
// shapes, so their allocations may fail; those inside the engine do not.

#include <algorithm>
#include <openvino/openvino.hpp>

#include "FakeEngines.h"

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
  Tensor input;
  std::vector<Tensor> outputs;
};
class Core::Impl {};

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
  return "[of rank " + std::to_string(size()) + ", as the fake engine says]";
}

Interval::Interval(value_type value) : m_min_val(value), m_max_val(value) {}
Dimension::Dimension(value_type length) : m_dimension(length) {}
PartialShape::PartialShape(std::initializer_list<Dimension> dimensions)
    : PartialShape(true, std::vector<Dimension>(dimensions)) {}
PartialShape::PartialShape(bool hasRank, std::vector<Dimension> dimensions)
    : m_rank_is_static(hasRank), m_dimensions(std::move(dimensions)) {}
bool PartialShape::compatible(const PartialShape& other) const {
  return std::ranges::equal(
      m_dimensions, other.m_dimensions, [](const Dimension& a, const Dimension& b) {
        return a.get_interval().get_min_val() == b.get_interval().get_min_val();
      });
}
bool PartialShape::operator!=(const PartialShape& other) const { return !compatible(other); }
Shape PartialShape::to_shape() const {
  Shape shape;
  for (const Dimension& d : m_dimensions)
    shape.push_back(static_cast<std::size_t>(d.get_interval().get_min_val()));
  return shape;
}
std::string PartialShape::to_string() const { return to_shape().to_string(); }
std::string element::Type::to_string() const { return "a type of the fake engine"; }
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

template <class List>
static PartialShape inputShape(const List& lengths) {
  return {lengths[0], lengths[1], lengths[2], lengths[3]};
}
const element::Type& Output<const Node>::get_element_type() const {
  return fakeNetwork.takesBytes ? element::u8 : element::f32;
}
const PartialShape& Output<const Node>::get_partial_shape() const {
  const EngineMemory own;
  static PartialShape shape = inputShape(fakeNetwork.input);
  shape = inputShape(fakeNetwork.input);
  return shape;
}

Core::Core(const std::string&) {
  const EngineMemory own;
  _impl = std::make_shared<Impl>();
}
std::vector<std::string> Core::get_available_devices() const {
  return {"CPU", "GPU.0 of the fake engine"};
}
std::shared_ptr<Model> Core::read_model(const std::string&, const std::string&,
                                        const AnyMap&) const {
  return nullptr;  // only the engine would use it
}
CompiledModel Core::compile_model(const std::string&, const std::string&, const AnyMap&) {
  const EngineMemory own;
  return {std::make_shared<ICompiledModel>(), nullptr};
}
CompiledModel Core::compile_model(const std::shared_ptr<const Model>&, const std::string& device,
                                  const AnyMap& properties) {
  return compile_model(std::string(), device, properties);
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
  request->input =
      Tensor(_impl->input.get_element_type(), inputShape(fakeNetwork.input).to_shape());
  for (const FakeOutput& output : fakeNetwork.outputs)
    request->outputs.emplace_back(element::f32, output.shape);
  return {request, nullptr};
}

InferRequest::InferRequest(const std::shared_ptr<IAsyncInferRequest>& impl,
                           const std::shared_ptr<void>& so)
    : _impl(impl), _so(so) {}
InferRequest::~InferRequest() = default;
Tensor InferRequest::get_input_tensor() { return _impl->input; }
Tensor InferRequest::get_input_tensor(std::size_t) { return _impl->input; }
void InferRequest::set_input_tensor(const Tensor& tensor) { _impl->input = tensor; }
Tensor InferRequest::get_output_tensor() { return _impl->outputs.at(0); }
Tensor InferRequest::get_output_tensor(std::size_t index) { return _impl->outputs.at(index); }
void InferRequest::infer() {
  const Tensor& input = _impl->input;
  inputChecksum.add(input.data(element::dynamic),
                    input.get_size() * (fakeNetwork.takesBytes ? 1 : sizeof(float)));
  for (std::size_t i = 0; i < _impl->outputs.size(); ++i)
    std::ranges::copy(fakeNetwork.outputs[i].numbers, _impl->outputs[i].data<float>());
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

PrePostProcessor::PrePostProcessor(const std::shared_ptr<Model>&) {
  const EngineMemory own;
  m_impl = std::make_unique<PrePostProcessorImpl>();
}
PrePostProcessor::~PrePostProcessor() = default;
InputInfo& PrePostProcessor::input() { return m_impl->input; }
OutputInfo& PrePostProcessor::output(std::size_t) { return m_impl->output; }
std::shared_ptr<Model> PrePostProcessor::build() {
  return nullptr;  // only the engine would use it
}

}  // namespace preprocess
}  // namespace ov

const ov::Version ov::get_openvino_version() noexcept { return {"fake", "fake"}; }
