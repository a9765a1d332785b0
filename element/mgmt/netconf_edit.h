// The datastore side of NETCONF's operations, on libyang trees: edit-config's operations
// (RFC 6241 7.2), subtree filters as XPath, and validation with the refusal's tag and path.
#pragma once

#include <libnetconf2/messages_server.h>
#include <libyang/libyang.h>

#include <string>

namespace pbr::mgmt {

enum class EditOp { kMerge, kReplace, kCreate, kDelete, kRemove, kNone };

struct EditError {
  NC_ERR tag = NC_ERR_INVALID_VALUE;
  std::string message;
  std::string path;
};

// The content of an anyxml <config> as configuration data (taken from `config` when the rpc's
// parse typed all of it), nc:operation attributes as metadata. *path: where the content is
// wrong, when known.
bool ParseConfigContent(ly_ctx* ctx, lyd_node* config, lyd_node** tree, std::string* error,
                        std::string* path);

// Applies the edit tree (first top-level sibling *edit) to `*tree`, nodes without an operation
// of their own taking their parent's (`defaultOp` at the top). Subtrees the result takes whole
// move out of the edit, whose rest the caller frees. On failure `*tree` may be half-edited:
// callers edit a copy.
bool ApplyEdit(lyd_node** edit, EditOp defaultOp, lyd_node** tree, EditError* error);

// Validates a whole configuration; the refusal carries the offending node's path.
bool ValidateConfig(ly_ctx* ctx, lyd_node** tree, EditError* error);

// The XML text of an anyxml node's content (null when empty), empty containers included.
bool AnyXmlText(const lyd_node* any, char** text);

// The XPath that selects what a subtree filter does; empty for an empty filter. With
// `notification`, the filter selects (content of) one notification.
bool SubtreeToXPath(ly_ctx* ctx, const lyd_node* filter, std::string* xpath, std::string* error,
                    bool notification = false);

}  // namespace pbr::mgmt
