// status_codes.cc -- the names and texts of the result codes.
#include "configstore.h"

#include <cstdint>

namespace configstore {

// ---- result codes ----------------------------------------------------------------

namespace {

struct CodeInfo {
   int32_t code;
   const char *name;
   const char *text;
};

constexpr CodeInfo kCodes[] = {
   {kSuccess, "kSuccess", "success"},
   {kBadParam, "kBadParam", "a null pointer, an empty key or name, or an unknown source"},
   {kNoMemory, "kNoMemory", "out of memory"},
   {kTypeMismatch, "kTypeMismatch", "the value is of another kind, or out of range"},
   {kBadJson, "kBadJson", "malformed JSON text or stored document"},
   {kDatabaseError, "kDatabaseError", "the database could not be opened, read or written"},
   {kNotFound, "kNotFound", "no such object, sub-object or value"},
   {kBusy, "kBusy", "the store stayed locked, or another commit overtook this one"},
   {kNoTransaction, "kNoTransaction", "commit or cancel without a transaction"},
   {kInTransaction, "kInTransaction", "a transaction is already open"},
   {kCorrupt, "kCorrupt", "the database file is damaged or not a store"},
   {kUnreachable, "kUnreachable", "no server of the cluster answered in time"},
   {kTooLarge, "kTooLarge", "the commit is over the server's size or operation limits"},
   {kBadUrl, "kBadUrl", "CONFIGSTORE_URL is not a location the store can use"},
};

const CodeInfo *FindCode(int32_t code) {
   for (const CodeInfo &info : kCodes) {
      if (info.code == code) {
         return &info;
      }
   }
   return nullptr;
}

}  // namespace

const char *StatusName(int32_t code) {
   const CodeInfo *info = FindCode(code);
   return info != nullptr ? info->name : "unknown";
}

const char *StatusText(int32_t code) {
   const CodeInfo *info = FindCode(code);
   return info != nullptr ? info->text : "not a result code of the configuration store";
}

}  // namespace configstore
