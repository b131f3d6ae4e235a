// etcd_client.cc -- requests to etcd's v3 gateway over libcurl, with
// failover between the cluster's endpoints.
#include "etcd_client.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <new>
#include <thread>

#include <curl/curl.h>

#include "etcd_wire.h"

namespace configstore {
namespace detail {

namespace wire = etcd_wire;
using Clock = std::chrono::steady_clock;

const char *EtcdCodeName(EtcdCode code) {
   switch (code) {
      case EtcdCode::kOk:
         return "ok";
      case EtcdCode::kUnreachable:
         return "unreachable";
      case EtcdCode::kTimeout:
         return "timeout";
      case EtcdCode::kConflict:
         return "conflict";
      case EtcdCode::kTooLarge:
         return "too large";
      case EtcdCode::kRejected:
         return "rejected";
      case EtcdCode::kBadAnswer:
         return "bad answer";
      case EtcdCode::kNoMemory:
         return "no memory";
   }
   return "unknown";
}

namespace {

// The outcome of one HTTP exchange with one endpoint.
struct Exchange {
   CURLcode rc = CURLE_OK;
   long http_status = 0;
   bool sent = false;  // some of the request went out on it
   bool out_of_memory = false;
   std::string body;
   char error[CURL_ERROR_SIZE] = {};
};

size_t Collect(char *data, size_t size, size_t count, void *user) {
   auto *x = static_cast<Exchange *>(user);
   try {
      x->body.append(data, size * count);
   } catch (...) {
      x->out_of_memory = true;
      return 0;  // makes libcurl stop with CURLE_WRITE_ERROR
   }
   return size * count;
}

bool ValidEndpoint(const std::string &e) {
   size_t colon = e.rfind(':');
   if (colon == std::string::npos || colon == 0 || colon + 1 == e.size() ||
       e.size() - colon - 1 > 5) {
      return false;
   }
   if (e.find_first_of("/?#@ ") != std::string::npos) {
      return false;
   }
   return std::all_of(e.begin() + static_cast<long>(colon) + 1, e.end(),
                      [](char c) { return c >= '0' && c <= '9'; });
}

long MillisLeft(Clock::time_point deadline) {
   auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
   return static_cast<long>(left.count());
}

}  // namespace

struct EtcdClient::Impl {
   CURL *curl = nullptr;
   curl_slist *headers = nullptr;

   ~Impl() {
      if (curl != nullptr) {
         curl_easy_cleanup(curl);
      }
      curl_slist_free_all(headers);
   }

   // One POST of `body` to `url`, never longer than `timeout_ms`.
   void Post(const std::string &url, const std::string &body, long connect_timeout_ms,
             long timeout_ms, Exchange *x) {
      // libcurl reads a timeout of 0 as "none": never hand it one.
      timeout_ms = std::max(1L, timeout_ms);
      if (curl_easy_setopt(curl, CURLOPT_URL, url.c_str()) != CURLE_OK) {
         x->rc = CURLE_OUT_OF_MEMORY;  // the only way copying the URL fails
         x->out_of_memory = true;
         return;
      }
      curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
      curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
      curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, std::min(connect_timeout_ms, timeout_ms));
      curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeout_ms);
      curl_easy_setopt(curl, CURLOPT_WRITEDATA, x);
      curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, x->error);
      x->rc = curl_easy_perform(curl);
      curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &x->http_status);
      curl_off_t uploaded = 0;
      curl_easy_getinfo(curl, CURLINFO_SIZE_UPLOAD_T, &uploaded);
      long header_bytes = 0;
      curl_easy_getinfo(curl, CURLINFO_REQUEST_SIZE, &header_bytes);
      x->sent = uploaded > 0 || header_bytes > 0;
      curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
      curl_easy_setopt(curl, CURLOPT_WRITEDATA, nullptr);
   }
};

EtcdCode EtcdClient::Create(const std::vector<std::string> &endpoints, const EtcdOptions &options,
                            std::unique_ptr<EtcdClient> *out) noexcept {
   static std::once_flag curl_init_once;
   static CURLcode curl_init_rc = CURLE_OK;
   try {
      out->reset();
      if (endpoints.empty() || !std::all_of(endpoints.begin(), endpoints.end(), ValidEndpoint) ||
          options.connect_timeout_ms <= 0 || options.request_timeout_ms <= 0 ||
          options.deadline_ms <= 0 || options.settle_poll_ms <= 0 ||
          options.election_wait_ms <= 0) {
         return EtcdCode::kRejected;
      }
      std::call_once(curl_init_once, [] { curl_init_rc = curl_global_init(CURL_GLOBAL_DEFAULT); });
      if (curl_init_rc != CURLE_OK) {
         return EtcdCode::kNoMemory;
      }
      std::unique_ptr<EtcdClient> client(new EtcdClient());
      client->options_ = options;
      for (const std::string &e : endpoints) {
         client->endpoints_.push_back(Endpoint{e, "http://" + e, 0});
      }
      client->impl_ = std::make_unique<Impl>();
      Impl &impl = *client->impl_;
      impl.curl = curl_easy_init();
      if (impl.curl == nullptr) {
         return EtcdCode::kNoMemory;
      }
      // "Expect:" stops libcurl from waiting for a 100-continue before
      // large bodies; the gateway never sends one.
      for (const char *h : {"Content-Type: application/json", "Expect:",
                            // Refuse at once, rather than queue, on a member without leader.
                            "Grpc-Metadata-hasleader: true"}) {
         curl_slist *more = curl_slist_append(impl.headers, h);
         if (more == nullptr) {
            return EtcdCode::kNoMemory;
         }
         impl.headers = more;
      }
      CURL *c = impl.curl;
      curl_easy_setopt(c, CURLOPT_HTTPHEADER, impl.headers);
      curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, Collect);
      curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(c, CURLOPT_PROXY, "");  // never through a proxy from the environment
      curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
#if LIBCURL_VERSION_NUM >= 0x075500
      curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http");
#endif
      curl_easy_setopt(c, CURLOPT_TCP_NODELAY, 1L);
      *out = std::move(client);
      return EtcdCode::kOk;
   } catch (...) {
      return EtcdCode::kNoMemory;
   }
}

EtcdClient::~EtcdClient() = default;

// Waits until endpoint `index` names a leader that is not one of `lost`
// (members whose endpoints failed during this call): after a leader dies,
// the others keep following it until their election timeout, and a write
// forwarded to it meanwhile would only wait for the request timeout.
EtcdClient::Readiness EtcdClient::Settle(size_t index, const std::vector<uint64_t> &lost,
                                         Clock::time_point deadline) {
   const std::string url = endpoints_[index].base_url + "/v3/maintenance/status";
   const long max_polls = options_.deadline_ms / options_.settle_poll_ms + 1;
   for (long poll = 0; poll < max_polls; poll++) {
      long left = MillisLeft(deadline);
      if (left <= 0) {
         break;
      }
      Exchange x;
      impl_->Post(url, "{}", options_.connect_timeout_ms,
                  std::min(options_.request_timeout_ms, left), &x);
      if (x.out_of_memory || x.rc != CURLE_OK) {
         return Readiness::kDown;
      }
      StatusInfo status;
      if (x.http_status == 200) {
         if (wire::ReadStatus(x.body, &status) != EtcdCode::kOk) {
            return Readiness::kDown;
         }
         endpoints_[index].member_id = status.member_id;
      } else if (!wire::ReadError(x.http_status, x.body).no_leader) {
         return Readiness::kDown;
      }
      if (status.leader != 0 && std::find(lost.begin(), lost.end(), status.leader) == lost.end()) {
         return Readiness::kReady;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(
         std::max(0L, std::min(options_.settle_poll_ms, MillisLeft(deadline)))));
   }
   return Readiness::kNoLeader;
}

EtcdCode EtcdClient::Call(const char *path, const std::string &body, bool is_write,
                          std::string *answer) {
   const Clock::time_point deadline =
      Clock::now() + std::chrono::milliseconds(options_.deadline_ms);
   const size_t n = endpoints_.size();
   std::vector<uint64_t> lost;      // member ids of endpoints lost during this call
   bool unsettled = false;          // the cluster may be electing a leader
   Clock::time_point settle_until;  // how long to wait for that leader
   auto unsettle = [&] {
      if (!unsettled) {
         unsettled = true;
         settle_until =
            std::min(deadline, Clock::now() + std::chrono::milliseconds(options_.election_wait_ms));
      }
   };
   bool timed_out = false;
   EtcdCode result = EtcdCode::kUnreachable;
   last_error_.clear();
   for (size_t attempt = 0; attempt < 2 * n; attempt++) {
      if (attempt == n) {
         // A second pass gives restarting members a moment.
         std::this_thread::sleep_for(std::chrono::milliseconds(
            std::max(0L, std::min(options_.settle_poll_ms, MillisLeft(deadline)))));
      }
      const long left = MillisLeft(deadline);
      if (left <= 0) {
         break;
      }
      const size_t index = current_;
      Endpoint &ep = endpoints_[index];
      current_ = (current_ + 1) % n;  // put back below on success
      if (unsettled) {
         Readiness r = Settle(index, lost, settle_until);
         if (r != Readiness::kReady) {
            last_error_ = ep.host_port + (r == Readiness::kDown ? ": down" : ": no leader in time");
            if (r == Readiness::kDown) {
               lost.push_back(ep.member_id);
            }
            continue;
         }
      }
      Exchange x;
      impl_->Post(ep.base_url + path, body, options_.connect_timeout_ms,
                  std::min(options_.request_timeout_ms, MillisLeft(deadline)), &x);
      if (x.out_of_memory) {
         last_error_ = "out of memory";
         return EtcdCode::kNoMemory;
      }
      if (x.rc == CURLE_OK && x.http_status == 200) {
         current_ = index;
         *answer = std::move(x.body);
         return EtcdCode::kOk;
      }
      if (x.rc == CURLE_OK) {
         wire::ErrorAnswer e = wire::ReadError(x.http_status, x.body);
         last_error_ = ep.host_port + ": " + e.message;
         bool may_retry =
            e.retry == wire::Retry::kAny || (e.retry == wire::Retry::kReadsOnly && !is_write);
         if (!may_retry) {
            current_ = index;
            return e.code;
         }
         timed_out = timed_out || e.code == EtcdCode::kTimeout;
         if (e.no_leader) {
            unsettle();
         }
         result = e.code;
         continue;
      }
      last_error_ = ep.host_port + ": " + (x.error[0] != '\0' ? x.error : curl_easy_strerror(x.rc));
      if (x.rc == CURLE_COULDNT_CONNECT || x.rc == CURLE_COULDNT_RESOLVE_HOST || !x.sent) {
         // Nothing reached this endpoint: it is down (or never was up).
         lost.push_back(ep.member_id);
         unsettle();
         continue;
      }
      // The request went out but no whole answer came back.
      if (is_write) {
         current_ = index;
         return EtcdCode::kTimeout;
      }
      timed_out = true;
   }
   return timed_out ? EtcdCode::kTimeout : result;
}

EtcdCode EtcdClient::Range(const RangeRequest &request, RangeResult *out) noexcept {
   try {
      std::string answer;
      EtcdCode rc = Call("/v3/kv/range", wire::RangeBody(request), false, &answer);
      if (rc != EtcdCode::kOk) {
         return rc;
      }
      wire::Header h;
      rc = wire::ReadRange(answer, &h, out);
      endpoints_[current_].member_id = h.member_id;
      return rc;
   } catch (...) {
      return EtcdCode::kNoMemory;
   }
}

EtcdCode EtcdClient::Put(const std::string &key, const std::string &value,
                         int64_t *revision) noexcept {
   try {
      std::string answer;
      EtcdCode rc = Call("/v3/kv/put", wire::PutBody(key, value), true, &answer);
      if (rc != EtcdCode::kOk) {
         return rc;
      }
      wire::Header h;
      rc = wire::ReadHeader(answer, &h);
      endpoints_[current_].member_id = h.member_id;
      if (revision != nullptr) {
         *revision = h.revision;
      }
      return rc;
   } catch (...) {
      return EtcdCode::kNoMemory;
   }
}

EtcdCode EtcdClient::DeleteRange(const std::string &key, bool prefix, int64_t *deleted,
                                 int64_t *revision) noexcept {
   try {
      std::string answer;
      EtcdCode rc = Call("/v3/kv/deleterange", wire::DeleteRangeBody(key, prefix), true, &answer);
      if (rc != EtcdCode::kOk) {
         return rc;
      }
      wire::Header h;
      int64_t count = 0;
      rc = wire::ReadDeleteRange(answer, &h, &count);
      endpoints_[current_].member_id = h.member_id;
      if (deleted != nullptr) {
         *deleted = count;
      }
      if (revision != nullptr) {
         *revision = h.revision;
      }
      return rc;
   } catch (...) {
      return EtcdCode::kNoMemory;
   }
}

EtcdCode EtcdClient::Txn(const std::vector<Compare> &compares, const std::vector<TxnOp> &ops,
                         TxnResult *out) noexcept {
   try {
      std::string answer;
      EtcdCode rc = Call("/v3/kv/txn", wire::TxnBody(compares, ops), true, &answer);
      if (rc != EtcdCode::kOk) {
         return rc;
      }
      wire::Header h;
      bool succeeded = false;
      rc = wire::ReadTxn(answer, &h, &succeeded);
      if (rc != EtcdCode::kOk) {
         return rc;
      }
      endpoints_[current_].member_id = h.member_id;
      out->succeeded = succeeded;
      out->revision = h.revision;
      if (!succeeded) {
         last_error_ = "transaction compare failed";
         return EtcdCode::kConflict;
      }
      return EtcdCode::kOk;
   } catch (...) {
      return EtcdCode::kNoMemory;
   }
}

EtcdCode EtcdClient::Status(StatusInfo *out) noexcept {
   try {
      std::string answer;
      EtcdCode rc = Call("/v3/maintenance/status", "{}", false, &answer);
      if (rc != EtcdCode::kOk) {
         return rc;
      }
      rc = wire::ReadStatus(answer, out);
      endpoints_[current_].member_id = out->member_id;
      return rc;
   } catch (...) {
      return EtcdCode::kNoMemory;
   }
}

}  // namespace detail
}  // namespace configstore
