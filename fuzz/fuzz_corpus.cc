// Writes the seed corpus of every harness under DIR/<harness>/, made with
// the library's own writers: host blobs of a realistic sample host (the
// registry writer), their switch and port blobs, a state file written by
// DVSFile_Write, the switch objects that saving those hosts puts into a
// store (turned back into CreateObject JSON), and simulator request
// sequences around those blobs.
//
// Usage: fuzz_corpus DIR
#include <dvsfile.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "kernel/wire_protocol.h"
#include "tools/dvsctl/sample_host.h"

namespace {

using nlohmann::ordered_json;
using Blob = std::string;

std::string gDir;

void Write(const std::string &harness, const std::string &name, const std::string &bytes) {
   const std::string dir = gDir + "/" + harness;
   mkdir(dir.c_str(), 0755);
   std::ofstream out(dir + "/" + name, std::ios::binary);
   out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
   FUZZ_CHECK(out.good());
}

std::string WithControl(uint8_t control, const std::string &bytes) {
   return std::string(1, static_cast<char>(control)) + bytes;
}

Blob SampleHost(uint32_t switches, uint32_t ports, uint32_t seed) {
   dvsctl::SampleHostOptions options;
   options.switches = switches;
   options.ports = ports;
   options.seed = seed;
   const dvsctl::Bytes bytes = dvsctl::BuildSampleHost(options);
   return Blob(bytes.begin(), bytes.end());
}

// The value of the first record of a blob (a host blob's first switch
// blob, a switch blob's ... as asked by name), or empty.
Blob Value(const Blob &blob, const char *name) {
   DVSDataHandle list = nullptr;
   if (DVSData_Deserialize(&list, blob.data(), static_cast<uint32_t>(blob.size()), malloc, free) !=
       STATUS_OK) {
      return Blob();
   }
   Blob value;
   for (DVSDataEntry *e = nullptr; DVSData_Next(list, e, &e) == STATUS_OK;) {
      if (name == nullptr || std::strcmp(DVSData_Name(e), name) == 0) {
         void *data = nullptr;
         const uint32_t len = DVSData_Data(e, &data);
         value.assign(static_cast<char *>(data), len);
         break;
      }
   }
   DVSData_Free(list);
   return value;
}

// The last record of a switch blob is one of its ports when it has any.
Blob LastValue(const Blob &blob) {
   DVSDataHandle list = nullptr;
   Blob value;
   if (DVSData_Deserialize(&list, blob.data(), static_cast<uint32_t>(blob.size()), malloc, free) ==
       STATUS_OK) {
      void *data = nullptr;
      const uint32_t len = list->tail != nullptr ? DVSData_Data(list->tail, &data) : 0;
      value.assign(static_cast<char *>(data), len);
      DVSData_Free(list);
   }
   return value;
}

Blob SmallList() {
   DVSDataHandle list = nullptr;
   FUZZ_CHECK(DVSData_Alloc(&list, malloc, free) == STATUS_OK);
   const uint32_t ports = 64;
   FUZZ_CHECK(DVSData_Append(list, "className", "etherswitch", 12, 0x10) == STATUS_OK);
   FUZZ_CHECK(DVSData_Append(list, "maxPorts", &ports, 4, 0x20) == STATUS_OK);
   FUZZ_CHECK(DVSData_Append(list, "empty", "", 0, 0x80000000u) == STATUS_OK);
   void *out = nullptr;
   uint32_t len = 0;
   FUZZ_CHECK(DVSData_Serialize(list, &out, &len, 6) == STATUS_OK);
   Blob blob(static_cast<char *>(out), len);
   DVSData_FreeAssocData(list, out);
   DVSData_Free(list);
   return blob;
}

std::string ReadFile(const std::string &path) {
   std::ifstream in(path, std::ios::binary);
   return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A stored document (docs/configstore.md) as the JSON CreateObject reads.
ordered_json Plain(const ordered_json &doc) {
   ordered_json out = ordered_json::object();
   if (doc.contains("values")) {
      for (const auto &[key, value] : doc["values"].items()) {
         out[key] = value;
      }
   }
   if (doc.contains("subobjects")) {
      for (const auto &[key, entries] : doc["subobjects"].items()) {
         ordered_json instances = ordered_json::array();
         for (const auto &entry : entries) {
            if (entry.contains("id")) {
               ordered_json one = Plain(entry);
               if (!one.contains("key")) {
                  one["key"] = entry["id"];
               }
               instances.push_back(one);
            } else {
               out[key] = Plain(entry);
            }
         }
         if (!instances.empty()) {
            out[key] = instances;
         }
      }
   }
   return out;
}

// The switch objects that saving the host blob writes to a fresh store.
std::vector<std::string> SavedSwitchObjects(const Blob &host, int n) {
   const std::string path = dvsfuzz::ScratchDir() + "/corpus" + std::to_string(n) + ".db";
   setenv("CONFIGSTORE_PATH", path.c_str(), 1);
   FUZZ_CHECK(DVSState_SaveBufToConfigStore(host.data(), static_cast<uint32_t>(host.size())) == 0);
   std::vector<std::string> texts;
   sqlite3 *db = nullptr;
   FUZZ_CHECK(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK);
   sqlite3_stmt *stmt = nullptr;
   FUZZ_CHECK(sqlite3_prepare_v2(db,
                                 "SELECT doc FROM objects WHERE grp = 'switches' AND "
                                 "source = 'EXTERNAL' ORDER BY seq",
                                 -1, &stmt, nullptr) == SQLITE_OK);
   while (sqlite3_step(stmt) == SQLITE_ROW) {
      const auto *doc = reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0));
      texts.push_back(Plain(ordered_json::parse(doc)).dump());
   }
   sqlite3_finalize(stmt);
   sqlite3_close(db);
   for (const char *suffix : {"", "-wal", "-shm"}) {
      unlink((path + suffix).c_str());
   }
   return texts;
}

// The host blob with its first switch marked not to be persisted, as the
// kernel would hold it.
Blob WithNoPersistSwitch(const Blob &host) {
   FUZZ_CHECK(DVSState_ConfigDeserialize(host.data(), static_cast<uint32_t>(host.size())) ==
              STATUS_OK);
   DVSDataHandle list = nullptr;
   FUZZ_CHECK(DVSData_Deserialize(&list, host.data(), static_cast<uint32_t>(host.size()), malloc,
                                  free) == STATUS_OK);
   const uint8_t yes = 1;
   FUZZ_CHECK(DVSState_GlobalPropSet(DVSData_Name(list->head), DVS_PROP_NOPERSIST, &yes, 1, 0) ==
              STATUS_OK);
   DVSData_Free(list);
   void *out = nullptr;
   uint32_t len = 0;
   FUZZ_CHECK(DVSState_ConfigSerialize(&out, &len) == STATUS_OK);
   Blob marked(static_cast<char *>(out), len);
   free(out);
   FUZZ_CHECK(DVSState_ConfigReset() == STATUS_OK);
   return marked;
}

// Input of the persistent state harness: control, kernel blob, file.
std::string PersistentInput(uint8_t control, const Blob &kernel, const std::string &file) {
   const auto n = static_cast<uint16_t>(kernel.size());
   FUZZ_CHECK(n == kernel.size());
   return WithControl(control, std::string(reinterpret_cast<const char *>(&n), 2) + kernel + file);
}

std::string SimSequence(const Blob &host, const Blob &port) {
   using dvsfuzz::EncodeSimRequest;
   using dvsfuzz::SimRequestText;
   std::string s;
   SimRequestText none;
   SimRequestText big;
   big.capacity = 1u << 20;
   SimRequestText add;
   add.name = "etherswitch";
   add.maxPorts = 16;
   add.version = 100;
   EncodeSimRequest(DVSHYP_CMD_SWITCH_ADD, 0, 0, add, "", &s);
   EncodeSimRequest(DVSHYP_CMD_PORT_ADD, 0, 1, none, port, &s);
   SimRequestText prop;
   prop.name = "com.ostrel.common.alias";
   prop.flag = 0x20;
   EncodeSimRequest(DVSHYP_CMD_GLOBAL_PROP_SET, 0, 0, prop, "alias0", &s);
   prop.capacity = 4;
   EncodeSimRequest(DVSHYP_CMD_GLOBAL_PROP_GET, 0, 0, prop, "", &s);
   EncodeSimRequest(DVSHYP_CMD_PORT_DATA_SET, 0, 1, prop, "x", &s);
   SimRequestText uplink;
   uplink.name = "1";
   uplink.capacity = 64;
   EncodeSimRequest(DVSHYP_CMD_UPLINK_DATA_SET, 0, 1, uplink, "up", &s);
   EncodeSimRequest(DVSHYP_CMD_UPLINK_DATA_GET, 0, 1, uplink, "", &s);
   EncodeSimRequest(DVSHYP_CMD_PORT_STATE_GET, 0, 1, big, "", &s);
   SimRequestText fault;
   fault.cmdText = "fault 3:1:LIMIT_EXCEEDED:9";
   fault.capacity = 256;
   EncodeSimRequest(DVSHYP_CMD_EXEC, 0, 0, fault, "", &s);
   EncodeSimRequest(DVSHYP_CMD_STATE_GET, 0, 0, big, "", &s);
   EncodeSimRequest(DVSHYP_CMD_STATE_INIT, 0, 0, none, host, &s);
   SimRequestText summary;
   summary.cmdText = "summary";
   summary.capacity = 4096;
   EncodeSimRequest(DVSHYP_CMD_EXEC, 0, 0, summary, "", &s);
   EncodeSimRequest(DVSHYP_CMD_STATE_GET, 0, 0, big, "", &s);
   EncodeSimRequest(DVSHYP_CMD_STATE_SANITIZE, 0, 0, none, "", &s);
   EncodeSimRequest(DVSHYP_CMD_SWITCH_REMOVE, 0, 0, none, "", &s);
   return s;
}

}  // namespace

int main(int argc, char **argv) {
   if (argc != 2) {
      std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
      return 2;
   }
   gDir = argv[1];
   mkdir(gDir.c_str(), 0755);
   dvsfuzz::Quiet();

   const std::vector<Blob> hosts = {SampleHost(1, 0, 1), SampleHost(2, 6, 2), SampleHost(4, 12, 3)};
   const Blob small = SmallList();
   std::vector<std::string> switchObjects;
   for (size_t h = 0; h < hosts.size(); ++h) {
      const Blob &host = hosts[h];
      const Blob sw = Value(host, nullptr);
      const Blob port = LastValue(sw);
      const std::string n = std::to_string(h);

      for (uint8_t control : {0x00, 0x01, 0x60, 0x81, 0x13, 0x23, 0x43}) {
         Write("blob_reader_fuzz", "host" + n + "-" + std::to_string(control),
               WithControl(control, host));
      }
      Write("blob_reader_fuzz", "switch" + n, WithControl(0x20, sw));
      Write("blob_reader_fuzz", "port" + n, WithControl(0x01, port));

      Write("config_blob_fuzz", "host" + n, WithControl(0, host));
      Write("config_blob_fuzz", "host-repair" + n, WithControl(4, host));
      Write("config_blob_fuzz", "switch" + n, WithControl(1, sw));
      Write("config_blob_fuzz", "switch-existing" + n, WithControl(0x21, sw));
      Write("config_blob_fuzz", "port" + n, WithControl(2, port));

      const std::string file = dvsfuzz::ScratchDir() + "/dvsdata.db";
      FUZZ_CHECK(DVSFile_Write(file.c_str(), host.data(), static_cast<uint32_t>(host.size())) ==
                 STATUS_OK);
      Write("state_file_fuzz", "file" + n, WithControl(0, ReadFile(file)));
      Write("state_file_fuzz", "file-rewrite" + n, WithControl(9, ReadFile(file)));
      Write("state_file_fuzz", "padded" + n, WithControl(6, host));
      if (h < 2) {
         const Blob kernel = WithNoPersistSwitch(host);
         Write("persistent_state_fuzz", "merge" + n, PersistentInput(0, kernel, ReadFile(file)));
         Write("persistent_state_fuzz", "no-file" + n, PersistentInput(4, kernel, ""));
         Write("persistent_state_fuzz", "plain" + n, PersistentInput(0, host, ReadFile(file)));
      }
      unlink(file.c_str());

      Write("sim_request_fuzz", "sequence" + n, SimSequence(host, port));

      for (const std::string &text : SavedSwitchObjects(host, static_cast<int>(h))) {
         switchObjects.push_back(text);
      }
   }
   for (uint8_t control : {0x00, 0x01}) {
      Write("blob_reader_fuzz", "list-" + std::to_string(control), WithControl(control, small));
   }
   Write("state_file_fuzz", "empty", std::string(1, '\0'));

   for (size_t k = 0; k < switchObjects.size(); ++k) {
      const std::string n = std::to_string(k);
      Write("store_object_fuzz", "switch" + n, switchObjects[k]);
      Write("store_load_fuzz", "live" + n, WithControl(0, switchObjects[k]));
      Write("store_load_fuzz", "desired" + n, WithControl(1, switchObjects[k]));
      Write("store_load_fuzz", "saved" + n, WithControl(4, switchObjects[k]));
      if (k + 1 < switchObjects.size()) {
         Write("store_load_fuzz", "pair" + n,
               WithControl(0, switchObjects[k] + std::string(1, '\0') + switchObjects[k + 1]));
      }
   }
   Write("store_object_fuzz", "empty", "{}");

   // Damage scripts: none, the file header, a page inside, a cut file.
   Write("store_file_fuzz", "intact", std::string(1, '\0'));
   Write("store_file_fuzz", "header", std::string("\0\x10\0\0\x58", 5));
   Write("store_file_fuzz", "page", std::string("\0\x00\x10\0\x0d\x40\x1f\0\xff", 9));
   Write("store_file_fuzz", "cut", std::string(1, '\x05'));
   dvsfuzz::RemoveScratch({});
   return 0;
}
