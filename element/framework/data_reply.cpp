#include "element/framework/data_reply.h"

#include "element/framework/values.h"

extern "C" int confd_data_reply_tag_value_array(struct confd_trans_ctx* tctx, confd_tag_value_t* tv,
                                                int n) {
  if (!tctx || !tctx->reply || n < 0 || (n > 0 && !tv)) {
    vqconfd::detail::SetLastError("no get-object request to reply to");
    return CONFD_ERR;
  }
  if (tctx->reply->replied()) {
    vqconfd::detail::SetLastError("the request has been replied to already");
    return CONFD_ERR;
  }
  tctx->reply->set_replied(true);
  for (int i = 0; i < n; ++i) {
    pbr::mgmt::TagValue* out = tctx->reply->add_value();
    out->set_tag(tv[i].tag.tag);
    out->set_ns(tv[i].tag.ns);
    vqconfd::detail::ToWire(tv[i].v, out->mutable_value());
  }
  return CONFD_OK;
}
