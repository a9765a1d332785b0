#include "element/mgmt/diff.h"

#include <algorithm>
#include <utility>

#include "element/mgmt/entry_key.h"

namespace pbr::mgmt {
namespace {

const lyd_node* Find(const lyd_node* first, const lysc_node* schema) {
  lyd_node* match = nullptr;
  if (!first || lyd_find_sibling_val(first, schema, nullptr, 0, &match) != LY_SUCCESS) {
    return nullptr;
  }
  return match;
}

using Keyed = std::pair<EntryKey, const lyd_node*>;

// The list entries of `schema` from `n` on (siblings of one schema are adjacent), by key.
std::vector<Keyed> SortedRun(const lyd_node* n, const lysc_node* schema) {
  std::vector<Keyed> run;
  for (; n && n->schema == schema; n = n->next) run.emplace_back(EntryKey::Of(n), n);
  std::sort(run.begin(), run.end(),
            [](const Keyed& a, const Keyed& b) { return a.first < b.first; });
  return run;
}

std::vector<const lyd_node*> Instances(const lyd_node* first, const lysc_node* schema) {
  std::vector<const lyd_node*> out;
  for (const lyd_node* n = Find(first, schema); n && n->schema == schema; n = n->next) {
    out.push_back(n);
  }
  return out;
}

// The case of `choice` that has data among the siblings, if any.
const lysc_node* CaseOf(const lysc_node* choice, const lyd_node* first) {
  for (const lyd_node* n = first; n; n = n->next) {
    for (const lysc_node* s = n->schema; s && s != choice; s = s->parent) {
      if (s->nodetype == LYS_CASE && s->parent == choice) return s;
    }
  }
  return nullptr;
}

}  // namespace

void DiffWriter::Children(const lysc_node* parent, const lysc_module* module,
                          const lyd_node* oldFirst, const lyd_node* newFirst) {
  if (!oldFirst && !newFirst) return;
  const lysc_node* schema = nullptr;
  while ((schema = lys_getnext(schema, parent, module, LYS_GETNEXT_WITHCHOICE))) {
    if (schema->nodetype == LYS_CHOICE) {
      Choice(schema, oldFirst, newFirst);
    } else {
      Node(schema, oldFirst, newFirst);
    }
  }
}

void DiffWriter::Choice(const lysc_node* choice, const lyd_node* oldFirst,
                        const lyd_node* newFirst) {
  const lysc_node* oldCase = CaseOf(choice, oldFirst);
  const lysc_node* newCase = CaseOf(choice, newFirst);
  // A case switch reports the old case's removal before the new case's values.
  if (oldCase && oldCase != newCase) Children(oldCase, nullptr, oldFirst, nullptr);
  if (newCase) Children(newCase, nullptr, oldCase == newCase ? oldFirst : nullptr, newFirst);
}

void DiffWriter::Node(const lysc_node* schema, const lyd_node* oldFirst, const lyd_node* newFirst) {
  if (schema->flags & LYS_CONFIG_R) return;
  switch (schema->nodetype) {
    case LYS_LIST:
      List(schema, oldFirst, newFirst);
      return;
    case LYS_LEAFLIST:
      LeafList(schema, oldFirst, newFirst);
      return;
    default:
      break;
  }
  const lyd_node* o = Find(oldFirst, schema);
  const lyd_node* n = Find(newFirst, schema);
  if (!o && !n) return;
  path_.push_back({schema, nullptr});
  if (schema->nodetype & LYS_LEAF) {
    if (!o || !n || lyd_compare_single(o, n, 0) != LY_SUCCESS) {
      Emit(n ? MOP_VALUE_SET : MOP_DELETED, o, n);
    }
  } else if (schema->nodetype == LYS_CONTAINER && (schema->flags & LYS_PRESENCE) && (!o || !n)) {
    const size_t index = Emit(n ? MOP_CREATED : MOP_DELETED, nullptr, nullptr);
    OpenSubtree(index);
    if (n) Created(lyd_child(n));
    CloseSubtree(index);
  } else if (!o) {
    Created(lyd_child(n));
  } else {
    Children(schema, nullptr, lyd_child(o), n ? lyd_child(n) : nullptr);
  }
  path_.pop_back();
}

void DiffWriter::List(const lysc_node* schema, const lyd_node* oldFirst, const lyd_node* newFirst) {
  const std::vector<Keyed> olds = SortedRun(Find(oldFirst, schema), schema);
  const std::vector<Keyed> news = SortedRun(Find(newFirst, schema), schema);
  size_t i = 0, j = 0;
  while (i < olds.size() || j < news.size()) {
    if (j == news.size() || (i < olds.size() && olds[i].first < news[j].first)) {
      Entry(olds[i++].second, nullptr);
    } else if (i == olds.size() || news[j].first < olds[i].first) {
      Entry(nullptr, news[j++].second);
    } else {
      Entry(olds[i++].second, news[j++].second);
    }
  }
}

void DiffWriter::Entry(const lyd_node* oldEntry, const lyd_node* newEntry) {
  if (!oldEntry && !newEntry) return;
  if (oldEntry && newEntry &&
      lyd_compare_single(oldEntry, newEntry, LYD_COMPARE_FULL_RECURSION) == LY_SUCCESS) {
    return;
  }
  const lyd_node* any = newEntry ? newEntry : oldEntry;
  path_.push_back({any->schema, nullptr});
  path_.push_back({any->schema, any});
  const size_t index = Emit(!oldEntry   ? MOP_CREATED
                            : !newEntry ? MOP_DELETED
                                        : MOP_MODIFIED,
                            nullptr, nullptr);
  OpenSubtree(index);
  // A deleted entry is reported alone; a new or changed one with its changed children.
  if (newEntry && !oldEntry) {
    Created(lyd_child(newEntry));
  } else if (newEntry) {
    Children(any->schema, nullptr, lyd_child(oldEntry), lyd_child(newEntry));
  }
  CloseSubtree(index);
  path_.pop_back();
  path_.pop_back();
}

void DiffWriter::Created(const lyd_node* first) {
  // libyang keeps siblings in schema order, so the data order is the order of the schema walk
  // that Children does; only list entries need sorting by key.
  for (const lyd_node* n = first; n;) {
    const lysc_node* schema = n->schema;
    if (!schema || (schema->flags & LYS_CONFIG_R)) {
      n = n->next;
      continue;
    }
    if (schema->nodetype == LYS_LIST) {
      for (const auto& [key, entry] : SortedRun(n, schema)) Entry(nullptr, entry);
      while (n && n->schema == schema) n = n->next;
      continue;
    }
    path_.push_back({schema, nullptr});
    if (schema->nodetype == LYS_LEAF) {
      Emit(MOP_VALUE_SET, nullptr, n);
    } else if (schema->nodetype == LYS_LEAFLIST) {
      path_.push_back({schema, n});
      Emit(MOP_CREATED, nullptr, nullptr);
      path_.pop_back();
    } else if (schema->nodetype == LYS_CONTAINER && (schema->flags & LYS_PRESENCE)) {
      const size_t index = Emit(MOP_CREATED, nullptr, nullptr);
      OpenSubtree(index);
      Created(lyd_child(n));
      CloseSubtree(index);
    } else if (schema->nodetype == LYS_CONTAINER) {
      Created(lyd_child(n));
    }
    path_.pop_back();
    n = n->next;
  }
}

void DiffWriter::LeafList(const lysc_node* schema, const lyd_node* oldFirst,
                          const lyd_node* newFirst) {
  const std::vector<const lyd_node*> olds = Instances(oldFirst, schema);
  const std::vector<const lyd_node*> news = Instances(newFirst, schema);
  if (olds.empty() && news.empty()) return;
  auto report = [&](const std::vector<const lyd_node*>& from, const lyd_node* otherFirst,
                    confd_iter_op op) {
    for (const lyd_node* entry : from) {
      lyd_node* match = nullptr;
      if (otherFirst && lyd_find_sibling_first(otherFirst, entry, &match) == LY_SUCCESS) continue;
      path_.push_back({schema, nullptr});
      path_.push_back({schema, entry});
      Emit(op, nullptr, nullptr);
      path_.pop_back();
      path_.pop_back();
    }
  };
  report(olds, newFirst, MOP_DELETED);
  report(news, oldFirst, MOP_CREATED);
}

size_t DiffWriter::Emit(confd_iter_op op, const lyd_node* oldValue, const lyd_node* newValue) {
  const size_t index = out_->size();
  // Only what lies below the enclosing change travels; the receiver knows the rest.
  size_t from = 0;
  uint32_t enclosing = 0;
  if (!open_.empty()) {
    from = open_.back().second;
    enclosing = static_cast<uint32_t>(index - open_.back().first);
  }
  return out_->Add(op, oldValue, newValue, enclosing, path_.data() + from, path_.size() - from);
}

void DiffWriter::OpenSubtree(size_t index) {
  open_.emplace_back(index, path_.size());
}

void DiffWriter::CloseSubtree(size_t index) {
  open_.pop_back();
  out_->SetDescendants(index, static_cast<uint32_t>(out_->size() - index - 1));
}

}  // namespace pbr::mgmt
