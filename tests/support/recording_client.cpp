#include "tests/support/recording_client.h"

#include "tests/support/fake_middleware.h"

namespace fake {
namespace {

RecordingClient* built = nullptr;
int buildCalls = 0;

}  // namespace

pbr::Error RecordingClient::SetEntry(const uint16_t& id, const pbr::Entry& entry) {
  calls.push_back({ClientCall::kSet, id, entry});
  return pbr::PBR_OK;
}

pbr::Error RecordingClient::DeleteEntry(const uint16_t& id) {
  calls.push_back({ClientCall::kDelete, id, pbr::Entry{}});
  return pbr::PBR_OK;
}

pbr::Error RecordingClient::RegisterStatusListener(pbr::PbrStatusItf* statusListener) {
  listener = statusListener;
  Journal("register listener");
  return pbr::PBR_OK;
}

std::vector<std::string> RecordingClient::Summary() const {
  std::vector<std::string> summary;
  for (const ClientCall& c : calls)
    summary.push_back((c.kind == ClientCall::kSet ? "set " : "delete ") + std::to_string(c.id));
  return summary;
}

RecordingClient* BuiltClient() {
  return built;
}
int BuildCalls() {
  return buildCalls;
}

}  // namespace fake

pbr::PbrClient* pbr::PbrClient::Build(vqmw_t*, zlog_category_t*) {
  ++fake::buildCalls;
  fake::Journal("build client");
  fake::built = new fake::RecordingClient();  // never destroyed, as the real one
  return fake::built;
}
