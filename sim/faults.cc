// The text form of planned faults, shared by the daemon's DVS_SIM_FAULTS
// variable and the "fault" command: "CODE:COUNT:STATUS[:LENGTH][,...]".
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "sim/simulator.h"

namespace dvs::sim {
namespace {

struct StatusName {
   const char *name;
   ReturnStatus status;
};

constexpr StatusName kStatusNames[] = {
   {"OK", STATUS_OK},
   {"FAILURE", STATUS_FAILURE},
   {"NOT_FOUND", STATUS_NOT_FOUND},
   {"EXISTS", STATUS_EXISTS},
   {"LIMIT_EXCEEDED", STATUS_LIMIT_EXCEEDED},
   {"BAD_PARAM", STATUS_BAD_PARAM},
   {"EMPTY", STATUS_EMPTY},
   {"IO_ERROR", STATUS_IO_ERROR},
   {"READ_ERROR", STATUS_READ_ERROR},
   {"WRITE_ERROR", STATUS_WRITE_ERROR},
   {"NO_MEMORY", STATUS_NO_MEMORY},
   {"NOT_SUPPORTED", STATUS_NOT_SUPPORTED},
   {"BAD_CHECKSUM", STATUS_BAD_CHECKSUM},
};

std::vector<std::string> Split(std::string_view text, char separator) {
   std::vector<std::string> parts;
   size_t start = 0;
   for (;;) {
      const size_t end = text.find(separator, start);
      parts.emplace_back(text.substr(start, end - start));
      if (end == std::string_view::npos) {
         return parts;
      }
      start = end + 1;
   }
}

// A whole unsigned 32-bit number: decimal, or hexadecimal with 0x.
bool ParseNumber(const std::string &text, uint32_t *value) {
   if (text.empty() || text[0] < '0' || text[0] > '9') {
      return false;
   }
   errno = 0;
   char *end = nullptr;
   const unsigned long long parsed = std::strtoull(text.c_str(), &end, 0);
   if (errno != 0 || *end != '\0' || parsed > UINT32_MAX) {
      return false;
   }
   *value = static_cast<uint32_t>(parsed);
   return true;
}

bool ParseStatus(std::string text, Fault *fault) {
   if (text == "drop") {
      fault->drop = true;
      return true;
   }
   if (text.compare(0, 7, "STATUS_") == 0) {
      text.erase(0, 7);
   }
   for (const StatusName &entry : kStatusNames) {
      if (text == entry.name) {
         fault->status = entry.status;
         return true;
      }
   }
   return ParseNumber(text, &fault->status);
}

}  // namespace

bool ParseFaults(std::string_view text, std::vector<Fault> *faults, std::string *error) {
   std::vector<Fault> parsed;
   for (const std::string &item : Split(text, ',')) {
      const std::vector<std::string> fields = Split(item, ':');
      Fault fault;
      bool ok = (fields.size() == 3 || fields.size() == 4) && ParseNumber(fields[0], &fault.code);
      if (ok && fields[1] == "*") {
         fault.count = kFaultAlways;
      } else {
         ok = ok && ParseNumber(fields[1], &fault.count);
      }
      ok = ok && ParseStatus(fields[2], &fault);
      if (ok && fields.size() == 4) {
         uint32_t length = 0;
         ok = ParseNumber(fields[3], &length);
         fault.length = length;
      }
      if (!ok) {
         *error = "bad fault \"" + item + "\": expected CODE:COUNT:STATUS[:LENGTH]";
         return false;
      }
      parsed.push_back(fault);
   }
   *faults = std::move(parsed);
   return true;
}

std::string FormatFault(const Fault &fault) {
   std::ostringstream out;
   out << fault.code << ':';
   if (fault.count == kFaultAlways) {
      out << '*';
   } else {
      out << fault.count;
   }
   out << ':';
   if (fault.drop) {
      out << "drop";
   } else {
      out << "0x" << std::hex << fault.status << std::dec;
   }
   if (fault.length) {
      out << ':' << *fault.length;
   }
   return out.str();
}

}  // namespace dvs::sim
