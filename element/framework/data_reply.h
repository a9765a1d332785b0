// The transaction context of a get-object request: where confd_data_reply_tag_value_array puts
// the callpoint's answer. Lives for one request, on the loop's thread.
#pragma once

#include "element/mgmt/mgmt.pb.h"
#include "platform/confd_lib.h"

struct confd_trans_ctx {
  pbr::mgmt::ObjectReply* reply;
};
