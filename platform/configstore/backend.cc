// backend.cc -- choosing the backend of a store from the environment.
//
// CONFIGSTORE_URL, read at every open: unset or empty keeps the SQLite
// file of CONFIGSTORE_PATH; etcd://HOST:PORT[,HOST:PORT...]/PREFIX selects
// an etcd cluster.  Anything else is kBadUrl, with the reason on stderr.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "backend.h"
#include "configstore.h"
#include "host_name.h"
#include "idle_backends.h"

namespace configstore {
namespace detail {

std::string LocalHostName() {
   const char *env = std::getenv(kHostEnv);
   if (env != nullptr && *env != '\0') {
      return env;
   }
   char name[HOST_NAME_MAX + 1] = {};
   if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
      return "localhost";
   }
   return name;
}

namespace {

constexpr const char *kEtcdScheme = "etcd://";

bool ValidEndpoint(const std::string &ep) {
   const std::string::size_type colon = ep.rfind(':');
   if (colon == std::string::npos || colon == 0 || colon + 1 == ep.size() ||
       ep.size() - colon - 1 > 5) {
      return false;
   }
   for (std::string::size_type i = colon + 1; i < ep.size(); ++i) {
      if (ep[i] < '0' || ep[i] > '9') {
         return false;
      }
   }
   const long port = std::strtol(ep.c_str() + colon + 1, nullptr, 10);
   return port > 0 && port < 65536;
}

// Parses etcd://HOST:PORT[,HOST:PORT...]/PREFIX; false with `why` set.
bool ParseEtcdUrl(const std::string &url, EtcdLocation *where, std::string *why) {
   const std::string rest = url.substr(std::char_traits<char>::length(kEtcdScheme));
   const std::string::size_type slash = rest.find('/');
   if (slash == std::string::npos) {
      *why = "no /PREFIX after the endpoints";
      return false;
   }
   std::string prefix = rest.substr(slash);
   while (prefix.size() > 1 && prefix.back() == '/') {
      prefix.pop_back();
   }
   if (prefix.size() <= 1) {
      *why = "empty PREFIX";
      return false;
   }
   where->prefix = prefix.substr(1);
   const std::string list = rest.substr(0, slash);
   std::string::size_type start = 0;
   while (start <= list.size()) {
      std::string::size_type comma = list.find(',', start);
      if (comma == std::string::npos) {
         comma = list.size();
      }
      std::string ep = list.substr(start, comma - start);
      if (!ValidEndpoint(ep)) {
         *why = "endpoint '" + ep + "' is not HOST:PORT";
         return false;
      }
      where->endpoints.push_back(std::move(ep));
      start = comma + 1;
   }
   return true;
}

}  // namespace

int32_t OpenBackend(std::unique_ptr<Backend> *out) {
   const char *url = std::getenv(kUrlEnv);
   if (url == nullptr || *url == '\0') {
      const char *env = std::getenv(kPathEnv);
      const char *path = env == nullptr || *env == '\0' ? kDefaultPath : env;
      if (std::unique_ptr<Backend> idle = TakeIdleBackend(path)) {
         *out = std::move(idle);
         return kSuccess;
      }
      return OpenSqliteBackend(path, out);
   }
   const std::string text = url;
   std::string why;
   EtcdLocation where;
   if (text.compare(0, std::char_traits<char>::length(kEtcdScheme), kEtcdScheme) != 0) {
      why = "the scheme is not etcd://";
   } else if (ParseEtcdUrl(text, &where, &why)) {
      where.host = LocalHostName();
      return OpenEtcdBackend(where, out);
   }
   std::fprintf(stderr, "configstore: cannot use %s=%s: %s (want etcd://HOST:PORT[,...]/PREFIX)\n",
                kUrlEnv, url, why.c_str());
   return kBadUrl;
}

}  // namespace detail
}  // namespace configstore
