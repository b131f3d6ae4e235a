// host_name.h -- the host a store stands for: CONFIGSTORE_HOST, else the
// machine's host name.  Internal to libconfigstorec.
#ifndef CONFIGSTORE_HOST_NAME_H
#define CONFIGSTORE_HOST_NAME_H

#include <string>

namespace configstore {
namespace detail {

std::string LocalHostName();

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_HOST_NAME_H
