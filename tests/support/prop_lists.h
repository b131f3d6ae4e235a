// Property lists for tests: made from name/value pairs, serialized, and
// read back as pairs.
#ifndef TESTS_SUPPORT_PROP_LISTS_H
#define TESTS_SUPPORT_PROP_LISTS_H

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <dvsdata.h>
#include <dvsstate.h>
#include <gtest/gtest.h>

namespace testsupport {

using Props = std::vector<std::pair<std::string, std::string>>;

// A list on the process allocator holding props, every one with `flag`.
inline DVSDataHandle NewList(const Props &props = {}, uint32_t flag = 0x20) {
   DVSDataHandle h = nullptr;
   EXPECT_EQ(DVSData_Alloc(&h, malloc, free), STATUS_OK);
   for (const auto &[name, value] : props)
      EXPECT_EQ(DVSData_Append(h, name.c_str(), value.data(), uint32_t(value.size()), flag),
                STATUS_OK)
         << name;
   return h;
}

// props as the library serializes them.
inline std::string Serialize(const Props &props, uint32_t flag = 0x20, uint32_t version = 1) {
   DVSDataHandle h = NewList(props, flag);
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSData_Serialize(h, &blob, &len, version), STATUS_OK);
   std::string out(static_cast<const char *>(blob), blob != nullptr ? len : 0);
   free(blob);
   DVSData_Free(h);
   return out;
}

inline Props Entries(DVSDataHandle h) {
   Props out;
   for (DVSDataEntry *e = h ? h->head : nullptr; e; e = e->next)
      out.emplace_back(e->name, std::string(reinterpret_cast<const char *>(e->data), e->dataLen));
   return out;
}

// The records of a blob, whatever their flags; a failure when it does not
// decode.
inline Props Decode(const std::string &blob) {
   DVSDataHandle h = nullptr;
   if (DVSData_DeserializeWithPropType(&h, blob.data(), uint32_t(blob.size()), malloc, free, ~0u))
      return ADD_FAILURE() << "blob does not decode", Props{};
   const Props out = Entries(h);
   DVSData_Free(h);
   return out;
}

// The registry as a host blob.
inline std::string HostBlob() {
   void *blob = nullptr;
   uint32_t len = 0;
   EXPECT_EQ(DVSState_ConfigSerialize(&blob, &len), STATUS_OK);
   const std::string out(static_cast<const char *>(blob), blob ? len : 0);
   std::free(blob);
   return out;
}

inline std::vector<std::string> Names(const Props &props) {
   std::vector<std::string> out;
   for (const auto &p : props)
      out.push_back(p.first);
   return out;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_PROP_LISTS_H
