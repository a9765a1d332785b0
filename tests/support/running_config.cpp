#include "tests/support/running_config.h"

namespace build {
namespace {

// The `position`th child of `parent` named `name`, made with the ones before it when missing.
pbr::mgmt::Node* Child(pbr::mgmt::Node* parent, const std::string& name, int position) {
  int seen = 0;
  for (pbr::mgmt::Node& child : *parent->mutable_child()) {
    if (child.name() == name && seen++ == position) return &child;
  }
  pbr::mgmt::Node* child = nullptr;
  for (; seen <= position; ++seen) {
    child = parent->add_child();
    child->set_name(name);
  }
  return child;
}

}  // namespace

void RunningConfig::Add(const std::string& path, confd_vtype type, const std::string& text) {
  pbr::mgmt::Node* node = &root_;
  for (size_t at = 1, end = 0; end != std::string::npos; at = end + 1) {
    end = path.find('/', at);
    std::string name = path.substr(at, end == std::string::npos ? end : end - at);
    int position = 0;
    if (const size_t open = name.find('['); open != std::string::npos) {
      position = std::stoi(name.substr(open + 1));
      name.resize(open);
    }
    if (end == std::string::npos) {
      node = node->add_child();
      node->set_name(name);
    } else {
      node = Child(node, name, position);
    }
  }
  node->mutable_value()->set_type(type);
  node->mutable_value()->set_text(text);
}

void RunningConfig::Open(int sock) {
  Close();
  snapshot_ = std::make_unique<vqconfd::detail::CdbSnapshot>(&root_);
  vqconfd::detail::OpenCdbSocket(sock, snapshot_.get());
  sock_ = sock;
}

void RunningConfig::Close() {
  if (sock_ >= 0) vqconfd::detail::CloseCdbSocket(sock_);
  sock_ = -1;
  snapshot_.reset();
}

}  // namespace build
