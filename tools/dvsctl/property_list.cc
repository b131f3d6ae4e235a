// property_list.cc -- owning wrappers around the libdvs property-list API.
#include "property_list.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <hostlibs.h>

#include "error.h"

namespace dvsctl {

std::string DescribeStatus(ReturnStatus status) {
   char code[16];
   std::snprintf(code, sizeof code, "0x%x", static_cast<unsigned>(status));
   return std::string(HYP_ReturnStatusToString(status)) + " (" + code + ")";
}

void CheckStatus(ReturnStatus status, const std::string &what) {
   if (status != STATUS_OK) {
      throw Error(what + ": " + DescribeStatus(status));
   }
}

PropertyListBuilder::PropertyListBuilder() {
   DVSDataHandle h = nullptr;
   const ReturnStatus status = DVSData_Alloc(&h, std::malloc, std::free);
   if (status != STATUS_OK) {
      throw Error("cannot create property list: " + DescribeStatus(status));
   }
   list_.reset(h);
}

PropertyListBuilder &PropertyListBuilder::Append(std::string_view name, const void *data,
                                                 uint32_t len, uint32_t flag) {
   // The library wants a NUL-terminated name.
   const std::string cname(name);
   const ReturnStatus status = DVSData_Append(list_.get(), cname.c_str(), data, len, flag);
   if (status != STATUS_OK) {
      throw Error("cannot add property \"" + cname + "\": " + DescribeStatus(status));
   }
   return *this;
}

PropertyListBuilder &PropertyListBuilder::Append(std::string_view name, const Bytes &value,
                                                 uint32_t flag) {
   if (value.size() > std::numeric_limits<uint32_t>::max()) {
      throw Error("property \"" + std::string(name) + "\" is too large");
   }
   return Append(name, value.data(), static_cast<uint32_t>(value.size()), flag);
}

PropertyListBuilder &PropertyListBuilder::AppendString(std::string_view name,
                                                       std::string_view value, uint32_t flag) {
   Bytes bytes(value.begin(), value.end());
   bytes.push_back(0);
   return Append(name, bytes, flag);
}

PropertyListBuilder &PropertyListBuilder::AppendU32(std::string_view name, uint32_t value,
                                                    uint32_t flag) {
   return Append(name, &value, sizeof value, flag);
}

Bytes PropertyListBuilder::Serialize() const {
   void *raw = nullptr;
   uint32_t len = 0;
   const ReturnStatus status = DVSData_Serialize(list_.get(), &raw, &len, DVSDATA_BLOB_VERSION);
   AssocDataPtr blob(raw, AssocDataDeleter{list_.get()});
   if (status != STATUS_OK) {
      throw Error("cannot serialize property list: " + DescribeStatus(status));
   }
   const auto *bytes = static_cast<const uint8_t *>(blob.get());
   return Bytes(bytes, bytes + len);
}

ReturnStatus DecodeList(const Bytes &blob, uint32_t typeMask, ListPtr &out) {
   out.reset();
   if (blob.size() > std::numeric_limits<uint32_t>::max()) {
      return STATUS_LIMIT_EXCEEDED;
   }
   DVSDataHandle h = nullptr;
   const ReturnStatus status = DVSData_DeserializeWithPropType(
      &h, blob.data(), static_cast<uint32_t>(blob.size()), std::malloc, std::free, typeMask);
   if (status == STATUS_OK) {
      out.reset(h);
   }
   return status;
}

}  // namespace dvsctl
