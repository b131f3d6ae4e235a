// store_error.cc -- how dvsctl reports a failing configuration-store call.
#include "store_error.h"

#include <cstdlib>

#include <configstore.h>

#include "error.h"

namespace dvsctl {
namespace {

namespace cs = configstore;

// Codes about the store as a whole rather than one object or call.
bool ConcernsWholeStore(int32_t code) {
   return code == cs::kDatabaseError || code == cs::kCorrupt || code == cs::kUnreachable ||
          code == cs::kBadUrl;
}

}  // namespace

std::string StoreLocation() {
   const char *url = std::getenv(cs::kUrlEnv);
   if (url != nullptr && *url != '\0') {
      return url;
   }
   const char *path = std::getenv(cs::kPathEnv);
   return path != nullptr && *path != '\0' ? path : cs::kDefaultPath;
}

std::string DescribeStoreCode(int32_t code, bool opening) {
   std::string out = opening || ConcernsWholeStore(code) ? StoreLocation() + ": " : "";
   return out + cs::StatusText(code) + " (" + cs::StatusName(code) + ", configstore code " +
          std::to_string(code) + ")";
}

void CheckStoreCode(int32_t code, const std::string &what) {
   if (code != cs::kSuccess) {
      throw Error(what + ": " + DescribeStoreCode(code));
   }
}

cs::Store *OpenConfigStore() {
   cs::Store *store = nullptr;
   const int32_t code = cs::GetStore(0, &store);
   if (code != cs::kSuccess) {
      throw Error("cannot open the configuration store: " + DescribeStoreCode(code, true));
   }
   return store;
}

}  // namespace dvsctl
