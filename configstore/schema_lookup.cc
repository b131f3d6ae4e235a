// Position of a store text in one of the enumeration-to-text tables.
#include <cstring>

#include "configstore/converters.h"

namespace dvs::configstore {

int32_t LookupSchemaIndex(const char *text, const char *const *table) {
   if (text == nullptr || table == nullptr) {
      return -1;
   }
   int32_t i = 0;
   // A table may begin with numbers that have no text.
   while (table[i] == nullptr && i < kSchemaLeadingNullsMax) {
      i++;
   }
   for (; table[i] != nullptr; i++) {
      if (std::strcmp(table[i], text) == 0) {
         return i;
      }
   }
   return -1;
}

}  // namespace dvs::configstore
