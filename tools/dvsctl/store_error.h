// store_error.h -- how dvsctl reports a failing configuration-store call.
//
// Every message carries the code's meaning, its name and its number:
//   "<what>: [<location>: ]<meaning> (<name>, configstore code N)"
// The store's location (CONFIGSTORE_URL, else the database file) is named
// when the store as a whole failed: it could not be opened, is damaged,
// unreachable, or the URL is unusable.
#ifndef DVSCTL_STORE_ERROR_H
#define DVSCTL_STORE_ERROR_H

#include <cstdint>
#include <string>

namespace configstore {
struct Store;
}

namespace dvsctl {

// CONFIGSTORE_URL when set, else CONFIGSTORE_PATH, else the default file.
std::string StoreLocation();

// "[<location>: ]<meaning> (<name>, configstore code N)"; `opening` names
// the location whatever the code.
std::string DescribeStoreCode(int32_t code, bool opening = false);

// Throws dvsctl::Error "<what>: " + DescribeStoreCode(code) unless `code`
// is success.
void CheckStoreCode(int32_t code, const std::string &what);

// GetStore, throwing "cannot open the configuration store: <location>:
// ..." when it fails.  The caller destroys the store.
configstore::Store *OpenConfigStore();

}  // namespace dvsctl

#endif  // DVSCTL_STORE_ERROR_H
