// Functions of OpenVINO that only vsa calls, on models read from files. The stand-in reads no
// files, so these are never called; they are needed to link vsa.

#include <openvino/openvino.hpp>

namespace ov {
namespace {

[[noreturn]] void refuse() {
  throw std::logic_error("a function that the fake engine does not have");
}

}  // namespace

std::vector<Output<const Node>> Model::inputs() const { refuse(); }
std::vector<Output<const Node>> Model::outputs() const { refuse(); }
bool Model::has_rt_info(const std::vector<std::string>&) const { refuse(); }
const Any& Model::get_rt_info(const AnyMap&, const std::vector<std::string>::const_iterator&,
                              const std::vector<std::string>::const_iterator&) const {
  refuse();
}
const std::unordered_set<std::string>& Output<const Node>::get_names() const { refuse(); }
Dimension::value_type Dimension::get_length() const { refuse(); }
bool Tensor::operator!() const noexcept { return !_impl; }

void Any::Base::read_from(const Base&) { refuse(); }
std::shared_ptr<RuntimeAttribute> Any::Base::as_runtime_attribute() const { refuse(); }
Any Any::Base::init(const std::shared_ptr<Node>&) { refuse(); }
bool Any::Base::is(const std::type_info&) const { refuse(); }
bool Any::Base::is_copyable() const { refuse(); }
Any Any::Base::merge(const std::vector<std::shared_ptr<Node>>&) { refuse(); }
std::string Any::Base::to_string() { refuse(); }
bool Any::Base::visit_attributes(AttributeVisitor&) { refuse(); }
Any::Base::~Base() = default;
std::size_t DiscreteTypeInfo::hash() { refuse(); }

namespace util {
bool equal(std::type_index, std::type_index) { refuse(); }
}  // namespace util
}  // namespace ov
