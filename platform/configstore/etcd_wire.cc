// etcd_wire.cc -- JSON bodies of etcd's v3 gateway.
#include "etcd_wire.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <new>

#include <openssl/evp.h>
#include <nlohmann/json.hpp>

namespace configstore {
namespace detail {
namespace etcd_wire {

namespace {

using Json = nlohmann::json;

// Thrown by the readers' helpers; turned into kBadAnswer at their edge.
struct Malformed {};

template <typename T>
T ParseNumber(const Json &v) {
   T out = 0;
   if (v.is_string()) {
      const std::string &s = v.get_ref<const std::string &>();
      auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
      if (ec != std::errc() || end != s.data() + s.size() || s.empty()) {
         throw Malformed{};
      }
      return out;
   }
   if (v.is_number_unsigned()) {
      if (v.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<T>::max())) {
         throw Malformed{};
      }
      return static_cast<T>(v.get<uint64_t>());
   }
   if (v.is_number_integer() && std::numeric_limits<T>::is_signed) {
      return static_cast<T>(v.get<int64_t>());
   }
   throw Malformed{};
}

// A 64-bit field: absent means zero (the gateway leaves zero values out).
template <typename T>
T Field(const Json &obj, const char *name) {
   auto it = obj.find(name);
   return it == obj.end() ? 0 : ParseNumber<T>(*it);
}

bool BoolField(const Json &obj, const char *name) {
   auto it = obj.find(name);
   if (it == obj.end()) {
      return false;
   }
   if (!it->is_boolean()) {
      throw Malformed{};
   }
   return it->get<bool>();
}

std::string BytesField(const Json &obj, const char *name) {
   auto it = obj.find(name);
   std::string out;
   if (it == obj.end()) {
      return out;
   }
   if (!it->is_string() || !Base64Decode(it->get_ref<const std::string &>(), &out)) {
      throw Malformed{};
   }
   return out;
}

Json Parse(const std::string &answer) {
   Json j = Json::parse(answer, nullptr, false);
   if (j.is_discarded() || !j.is_object()) {
      throw Malformed{};
   }
   return j;
}

void ReadHeaderOf(const Json &j, Header *header) {
   auto it = j.find("header");
   if (it == j.end() || !it->is_object()) {
      throw Malformed{};
   }
   header->member_id = Field<uint64_t>(*it, "member_id");
   header->revision = Field<int64_t>(*it, "revision");
}

// Runs a reader, keeping its exceptions inside.
template <typename F>
EtcdCode Guard(F &&read) noexcept {
   try {
      read();
      return EtcdCode::kOk;
   } catch (const std::bad_alloc &) {
      return EtcdCode::kNoMemory;
   } catch (...) {
      return EtcdCode::kBadAnswer;
   }
}

const char *TargetName(Compare::Target t) {
   switch (t) {
      case Compare::Target::kVersion:
         return "VERSION";
      case Compare::Target::kCreate:
         return "CREATE";
      case Compare::Target::kMod:
         break;
   }
   return "MOD";
}

const char *TargetField(Compare::Target t) {
   switch (t) {
      case Compare::Target::kVersion:
         return "version";
      case Compare::Target::kCreate:
         return "create_revision";
      case Compare::Target::kMod:
         break;
   }
   return "mod_revision";
}

const char *OpName(Compare::Op op) {
   switch (op) {
      case Compare::Op::kNotEqual:
         return "NOT_EQUAL";
      case Compare::Op::kLess:
         return "LESS";
      case Compare::Op::kGreater:
         return "GREATER";
      case Compare::Op::kEqual:
         break;
   }
   return "EQUAL";
}

bool Contains(const std::string &text, const char *part) {
   return text.find(part) != std::string::npos;
}

Json PutJson(const std::string &key, const std::string &value) {
   Json j;
   j["key"] = Base64Encode(key);
   j["value"] = Base64Encode(value);
   return j;
}

Json DeleteJson(const std::string &key, bool prefix) {
   Json j;
   j["key"] = Base64Encode(key);
   if (prefix) {
      j["range_end"] = Base64Encode(PrefixEnd(key));
   }
   return j;
}

}  // namespace

std::string Base64Encode(std::string_view data) {
   if (data.size() > static_cast<size_t>(std::numeric_limits<int>::max() / 4 * 3)) {
      throw std::bad_alloc();  // larger than any request the server takes
   }
   std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
   int n = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]),
                           reinterpret_cast<const unsigned char *>(data.data()),
                           static_cast<int>(data.size()));
   out.resize(static_cast<size_t>(n));
   return out;
}

bool Base64Decode(std::string_view text, std::string *out) {
   // EVP_DecodeBlock takes whole 4-character groups and counts the padding
   // as zero bytes, which are dropped here.
   if (text.size() % 4 != 0 || text.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
      return false;
   }
   const size_t first_pad = std::min(text.find('='), text.size());
   const size_t pad = text.size() - first_pad;
   if (pad > 2 || text.find_first_not_of('=', first_pad) != std::string_view::npos) {
      return false;
   }
   out->assign(text.size() / 4 * 3 + 1, '\0');
   int n = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(&(*out)[0]),
                           reinterpret_cast<const unsigned char *>(text.data()),
                           static_cast<int>(text.size()));
   if (n < 0 || static_cast<size_t>(n) < pad) {
      return false;
   }
   out->resize(static_cast<size_t>(n) - pad);
   return true;
}

std::string PrefixEnd(const std::string &prefix) {
   std::string end = prefix;
   while (!end.empty()) {
      unsigned char last = static_cast<unsigned char>(end.back());
      if (last != 0xff) {
         end.back() = static_cast<char>(last + 1);
         return end;
      }
      end.pop_back();
   }
   return std::string(1, '\0');
}

std::string RangeBody(const RangeRequest &request) {
   Json j;
   j["key"] = Base64Encode(request.key);
   if (request.prefix) {
      j["range_end"] = Base64Encode(PrefixEnd(request.key));
   }
   if (request.sort_by_create) {
      j["sort_target"] = "CREATE";
      j["sort_order"] = "ASCEND";
   }
   if (request.keys_only) {
      j["keys_only"] = true;
   }
   if (request.limit > 0) {
      j["limit"] = std::to_string(request.limit);
   }
   if (request.revision > 0) {
      j["revision"] = std::to_string(request.revision);
   }
   return j.dump();
}

std::string PutBody(const std::string &key, const std::string &value) {
   return PutJson(key, value).dump();
}

std::string DeleteRangeBody(const std::string &key, bool prefix) {
   return DeleteJson(key, prefix).dump();
}

std::string TxnBody(const std::vector<Compare> &compares, const std::vector<TxnOp> &ops) {
   Json cmp = Json::array();
   for (const Compare &c : compares) {
      Json one;
      one["key"] = Base64Encode(c.key);
      if (c.prefix) {
         one["range_end"] = Base64Encode(PrefixEnd(c.key));
      }
      one["target"] = TargetName(c.target);
      one["result"] = OpName(c.op);
      one[TargetField(c.target)] = std::to_string(c.value);
      cmp.push_back(std::move(one));
   }
   Json success = Json::array();
   for (const TxnOp &op : ops) {
      Json one;
      if (op.kind == TxnOp::Kind::kPut) {
         one["request_put"] = PutJson(op.key, op.value);
      } else {
         one["request_delete_range"] = DeleteJson(op.key, op.prefix);
      }
      success.push_back(std::move(one));
   }
   Json j;
   j["compare"] = std::move(cmp);
   j["success"] = std::move(success);
   return j.dump();
}

EtcdCode ReadRange(const std::string &answer, Header *header, RangeResult *out) noexcept {
   return Guard([&] {
      Json j = Parse(answer);
      ReadHeaderOf(j, header);
      out->revision = header->revision;
      out->count = Field<int64_t>(j, "count");
      out->more = BoolField(j, "more");
      out->kvs.clear();
      auto it = j.find("kvs");
      if (it == j.end()) {
         return;
      }
      if (!it->is_array()) {
         throw Malformed{};
      }
      out->kvs.reserve(it->size());
      for (const Json &kv : *it) {
         if (!kv.is_object()) {
            throw Malformed{};
         }
         KeyValue one;
         one.key = BytesField(kv, "key");
         one.value = BytesField(kv, "value");
         one.create_revision = Field<int64_t>(kv, "create_revision");
         one.mod_revision = Field<int64_t>(kv, "mod_revision");
         one.version = Field<int64_t>(kv, "version");
         out->kvs.push_back(std::move(one));
      }
   });
}

EtcdCode ReadHeader(const std::string &answer, Header *header) noexcept {
   return Guard([&] { ReadHeaderOf(Parse(answer), header); });
}

EtcdCode ReadDeleteRange(const std::string &answer, Header *header, int64_t *deleted) noexcept {
   return Guard([&] {
      Json j = Parse(answer);
      ReadHeaderOf(j, header);
      *deleted = Field<int64_t>(j, "deleted");
   });
}

EtcdCode ReadTxn(const std::string &answer, Header *header, bool *succeeded) noexcept {
   return Guard([&] {
      Json j = Parse(answer);
      ReadHeaderOf(j, header);
      *succeeded = BoolField(j, "succeeded");
   });
}

EtcdCode ReadStatus(const std::string &answer, StatusInfo *out) noexcept {
   return Guard([&] {
      Json j = Parse(answer);
      Header header;
      ReadHeaderOf(j, &header);
      out->member_id = header.member_id;
      out->revision = header.revision;
      auto version = j.find("version");
      if (version == j.end() || !version->is_string()) {
         throw Malformed{};
      }
      out->version = version->get<std::string>();
      out->leader = Field<uint64_t>(j, "leader");
      out->raft_term = Field<int64_t>(j, "raftTerm");
      out->raft_index = Field<int64_t>(j, "raftIndex");
      out->db_size = Field<int64_t>(j, "dbSize");
   });
}

ErrorAnswer ReadError(long http_status, const std::string &answer) noexcept {
   ErrorAnswer e;
   try {
      Json j = Json::parse(answer, nullptr, false);
      auto code = j.is_object() ? j.find("code") : j.end();
      auto message = j.is_object() ? j.find("message") : j.end();
      if (code == j.end() || !code->is_number_integer() || message == j.end() ||
          !message->is_string()) {
         e.message = "HTTP " + std::to_string(http_status) + " without an error body";
         return e;
      }
      e.message = message->get<std::string>();
      const int grpc_code = code->get<int>();
      const std::string &m = e.message;
      if (Contains(m, "too many operations") || Contains(m, "request is too large") ||
          Contains(m, "larger than max")) {
         e.code = EtcdCode::kTooLarge;
      } else if (Contains(m, "no leader") || Contains(m, "not capable") ||
                 Contains(m, "too many requests")) {
         // Refused before anything was proposed: safe to send elsewhere.
         e.code = EtcdCode::kUnreachable;
         e.retry = Retry::kAny;
         e.no_leader = Contains(m, "no leader");
      } else if (grpc_code == 14 || grpc_code == 4) {
         // Unavailable / deadline exceeded after the request was taken in
         // ("request timed out", "leader changed"): it may yet be applied.
         e.code = EtcdCode::kTimeout;
         e.retry = Retry::kReadsOnly;
      } else {
         e.code = EtcdCode::kRejected;
      }
   } catch (...) {
      e.code = EtcdCode::kNoMemory;  // the only thing the code above can throw
   }
   return e;
}

}  // namespace etcd_wire
}  // namespace detail
}  // namespace configstore
