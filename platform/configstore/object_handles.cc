// object_handles.cc -- handles into object trees: top-level objects and
// the sub-object handles handed out for them, filters, and the sub-object
// calls.
#include "client.h"

#include <cstdlib>

namespace configstore {

using namespace client;

namespace client {

bool IsRoot(const Object *obj) {
   return obj->root == obj;
}

std::unique_ptr<Object> NewRoot(std::unique_ptr<detail::Tree> tree, std::string group,
                                std::string object, std::string component, std::string instance) {
   auto obj = std::make_unique<Object>();
   obj->top = std::make_unique<detail::TopLevel>();
   obj->root = obj.get();
   obj->node = tree->Root();
   obj->raw = tree->Root().get();
   detail::TopLevel &top = *obj->top;
   top.tree = std::move(tree);
   top.group = std::move(group);
   top.object = std::move(object);
   top.component = std::move(component);
   top.instance = std::move(instance);
   return obj;
}

// A node carries the one handle made for it: a node taken out of the tree
// and a new one made in its place never share a handle.
Object *HandleFor(Object *root, const NodePtr &node) {
   detail::TopLevel &top = *root->top;
   if (top.cold) {
      top.cold = false;
      top.tree->Warm();
   }
   if (node->handle != nullptr) {
      return node->handle;
   }
   Object &handle = root->top->handles.emplace_back();
   handle.root = root;
   handle.node = node;
   handle.raw = node.get();
   node->handle = &handle;
   return &handle;
}

Object **NewObjectArray(size_t count) {
   auto **array = static_cast<Object **>(std::calloc(count == 0 ? 1 : count, sizeof(Object *)));
   if (array == nullptr) {
      throw std::bad_alloc();
   }
   return array;
}

}  // namespace client

namespace {

int32_t SubObjectArray(Object *parent, const NodePtr *nodes, size_t n, Object ***objects,
                       uint32_t *count) {
   Object **array = NewObjectArray(n);
   try {
      for (size_t i = 0; i < n; ++i) {
         array[i] = HandleFor(parent->root, nodes[i]);
      }
   } catch (...) {
      std::free(array);
      throw;
   }
   *objects = array;
   *count = static_cast<uint32_t>(n);
   return kSuccess;
}

}  // namespace

void DestroyConfigStoreObject(Object *obj) {
   // A sub-object handle belongs to its top-level object and goes with it.
   if (obj != nullptr && IsRoot(obj)) {
      delete obj;
   }
}

// ---- filters and instance lists -------------------------------------------------------

int32_t CreateFilterSpecObject(const char *a, const char *b, const char *c, const char *d,
                               FilterSpec **out) {
   return Guard([&]() -> int32_t {
      if (out == nullptr || Empty(a)) {
         return kBadParam;
      }
      *out = nullptr;
      auto view = [](const char *t) { return t != nullptr ? std::string_view(t) : std::string_view(); };
      const std::string_view texts[] = {a, view(b), view(c), view(d)};
      size_t total = 0;
      for (std::string_view t : texts) {
         total += t.size();
      }
      auto filter = std::make_unique<FilterSpec>();
      char *at = filter->inlineText;
      if (total > sizeof filter->inlineText) {
         filter->spill = std::make_unique<char[]>(total);
         at = filter->spill.get();
      }
      std::string_view *fields[] = {&filter->a, &filter->b, &filter->c, &filter->d};
      for (size_t i = 0; i < 4; i++) {
         if (!texts[i].empty()) {
            std::memcpy(at, texts[i].data(), texts[i].size());
         }
         *fields[i] = std::string_view(at, texts[i].size());
         at += texts[i].size();
      }
      *out = filter.release();
      return kSuccess;
   });
}

void DestroyFilterSpecObject(FilterSpec *filter) {
   delete filter;
}

int32_t GetSubObjectInstances(Object *parent, FilterSpec *filter, Object ***objects,
                              uint32_t *count) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || filter == nullptr || objects == nullptr || count == nullptr ||
          filter->a.empty()) {
         return kBadParam;
      }
      *objects = nullptr;
      *count = 0;
      Node *node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      if (filter->b.empty()) {
         const detail::SubKey *sub = node->FindSub(filter->a);
         return sub != nullptr ? SubObjectArray(parent, sub->entries.data(), sub->entries.size(),
                                                objects, count)
                               : SubObjectArray(parent, nullptr, 0, objects, count);
      }
      const NodePtr *child = node->FindChild(filter->a, filter->b);
      return SubObjectArray(parent, child, child != nullptr ? 1 : 0, objects, count);
   });
}

int32_t DeleteSubObjectInstances(Object *parent, FilterSpec *filter) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || filter == nullptr || filter->a.empty()) {
         return kBadParam;
      }
      Node *node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      bool removed =
         filter->b.empty() ? node->RemoveSub(filter->a) : node->RemoveChild(filter->a, filter->b);
      return removed ? kSuccess : kNotFound;
   });
}

// ---- sub-objects ------------------------------------------------------------------------

int32_t GetSubObject(Object *parent, const char *key, const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || out == nullptr || Empty(key)) {
         return kBadParam;
      }
      *out = nullptr;
      Node *node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      const NodePtr *child = node->FindChild(key, instanceId == nullptr ? "" : instanceId);
      if (child == nullptr) {
         return kNotFound;
      }
      *out = HandleFor(parent->root, *child);
      return kSuccess;
   });
}

int32_t CreateSubObject(Object *parent, const char *key, const char *instanceId, Object **out) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || out == nullptr || Empty(key)) {
         return kBadParam;
      }
      *out = nullptr;
      Node *node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      NodePtr child = node->AddChild(key, instanceId == nullptr ? "" : instanceId);
      *out = HandleFor(parent->root, child);
      return kSuccess;
   });
}

int32_t DeleteSubObject(Object *parent, const char *key, const char *instanceId) {
   return Guard([&]() -> int32_t {
      if (parent == nullptr || Empty(key)) {
         return kBadParam;
      }
      Node *node = Live(parent);
      if (!node) {
         return kNotFound;
      }
      return node->RemoveChild(key, instanceId == nullptr ? "" : instanceId) ? kSuccess : kNotFound;
   });
}

}  // namespace configstore
