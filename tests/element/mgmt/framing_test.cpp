// Frames across partial reads, and refusal of oversized frames.
#include "element/mgmt/framing.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "element/mgmt/mgmt.pb.h"

namespace pbr::mgmt {
namespace {

class FramingTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds_), 0); }
  void TearDown() override {
    close(fds_[0]);
    close(fds_[1]);
  }
  int fds_[2];
};

// Messages encoded by the caller, with room left for the header.
std::string Frame(uint64_t id) {
  ClientMessage m;
  m.set_id(id);
  return std::string(FramedStream::kHeaderSize, '\0') + m.SerializeAsString();
}

TEST_F(FramingTest, MessagesArriveWholeAndInOrderWhateverTheReadBoundaries) {
  FramedStream out, in;
  ClientMessage a, b;
  a.set_id(1);
  a.mutable_load()->set_data(std::string(300000, 'x'));  // more than one read
  b.set_id(2);
  out.QueueFrame(Frame(3));  // taken over: nothing else queued
  out.Queue(a);
  out.QueueFrame(Frame(4));  // appended
  out.Queue(b);
  std::string payload;
  std::vector<uint64_t> ids;
  while (ids.size() < 4) {
    ASSERT_EQ(out.WriteTo(fds_[0]), FramedStream::Io::kOk);
    ASSERT_EQ(in.ReadFrom(fds_[1]), FramedStream::Io::kOk);
    while (in.Next(&payload) == FramedStream::Frame::kComplete) {
      ClientMessage m;
      ASSERT_TRUE(m.ParseFromString(payload));
      ids.push_back(m.id());
      if (m.id() == 1) {
        EXPECT_EQ(m.load().data().size(), 300000u);
      }
    }
  }
  EXPECT_EQ(ids, (std::vector<uint64_t>{3, 1, 4, 2}));
}

TEST_F(FramingTest, AnOversizedLengthIsRefusedBeforeAnyPayloadIsRead) {
  FramedStream in(1024);
  const unsigned char header[] = {0, 0, 4, 1};  // 1025 bytes announced
  ASSERT_EQ(write(fds_[0], header, sizeof header), 4);
  ASSERT_EQ(in.ReadFrom(fds_[1]), FramedStream::Io::kOk);
  std::string payload;
  EXPECT_EQ(in.Next(&payload), FramedStream::Frame::kOversized);
}

}  // namespace
}  // namespace pbr::mgmt
