// Which JSON library reads and writes the store's documents fastest: the
// 32 documents of the sample host at 4096 ports (as the store keeps them,
// about 5 MB) parsed and written by nlohmann-json, RapidJSON and simdjson
// (DOM, and on-demand with every value visited), beside the store's own
// reader (on-demand straight into the object tree) and writer (the tree
// into one string).  The numbers behind the choice in the README.
#include <benchmark/benchmark.h>
#include <configstore.h>
#include <dvsconfigstore.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "document.h"
#include "sample_host.h"

namespace {

void Must(bool ok, const char *what) {
   if (!ok) {
      std::fprintf(stderr, "json choice bench: %s failed\n", what);
      std::abort();
   }
}

// The stored documents of the sample host, made once.
const std::vector<std::string> &Documents() {
   static const std::vector<std::string> docs = [] {
      std::string dir = (std::filesystem::temp_directory_path() / "dvs-json.XXXXXX").string();
      Must(mkdtemp(dir.data()) != nullptr, "mkdtemp");
      const std::string path = dir + "/store.db";
      setenv(configstore::kPathEnv, path.c_str(), 1);
      dvsconfigstore_debug = -1;
      const dvsctl::Bytes blob = dvsctl::BuildSampleHost({32, 4096, 1});
      Must(DVSState_SaveBufToConfigStore(blob.data(), static_cast<uint32_t>(blob.size())) == 0,
           "save");
      std::vector<std::string> out;
      sqlite3 *db = nullptr;
      sqlite3_stmt *stmt = nullptr;
      Must(sqlite3_open(path.c_str(), &db) == SQLITE_OK, "open");
      Must(sqlite3_prepare_v2(db, "SELECT doc FROM objects", -1, &stmt, nullptr) == SQLITE_OK,
           "select");
      while (sqlite3_step(stmt) == SQLITE_ROW) {
         out.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0)));
      }
      sqlite3_finalize(stmt);
      sqlite3_close(db);
      std::error_code ec;
      std::filesystem::remove_all(dir, ec);
      return out;
   }();
   return docs;
}

void Done(benchmark::State &state) {
   size_t bytes = 0;
   for (const auto &d : Documents()) {
      bytes += d.size();
   }
   state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void BM_JsonParse_Nlohmann(benchmark::State &state) {
   for (auto _ : state) {
      for (const auto &d : Documents()) {
         benchmark::DoNotOptimize(nlohmann::ordered_json::parse(d));
      }
   }
   Done(state);
}

void BM_JsonParse_RapidJson(benchmark::State &state) {
   for (auto _ : state) {
      for (const auto &d : Documents()) {
         rapidjson::Document doc;
         doc.Parse<rapidjson::kParseValidateEncodingFlag>(d.data(), d.size());
         Must(!doc.HasParseError(), "rapidjson parse");
         benchmark::DoNotOptimize(doc);
      }
   }
   Done(state);
}

void BM_JsonParse_SimdjsonDom(benchmark::State &state) {
   simdjson::dom::parser parser;
   for (auto _ : state) {
      for (const auto &d : Documents()) {
         simdjson::dom::element root;
         Must(parser.parse(d).get(root) == simdjson::SUCCESS, "simdjson dom parse");
         benchmark::DoNotOptimize(root);
      }
   }
   Done(state);
}

// Every value of an on-demand document visited, as a reader must.
size_t Walk(simdjson::ondemand::value v) {
   using simdjson::ondemand::json_type;
   size_t n = 1;
   switch (v.type().value()) {
      case json_type::object:
         for (auto field : v.get_object()) {
            n += field.unescaped_key().value().size() + Walk(field.value());
         }
         return n;
      case json_type::array:
         for (auto e : v.get_array()) {
            n += Walk(e.value());
         }
         return n;
      case json_type::string:
         return v.get_string().value().size();
      case json_type::number:
         return static_cast<size_t>(v.get_int64().value());
      case json_type::boolean:
         return v.get_bool().value() ? 1 : 0;
      default:
         return 0;
   }
}

void BM_JsonParse_SimdjsonOnDemand(benchmark::State &state) {
   simdjson::ondemand::parser parser;
   std::vector<simdjson::padded_string> padded(Documents().begin(), Documents().end());
   for (auto _ : state) {
      for (const auto &d : padded) {
         auto doc = parser.iterate(d);
         benchmark::DoNotOptimize(Walk(doc.get_value().value()));
      }
   }
   Done(state);
}

void BM_JsonParse_StoreReader(benchmark::State &state) {
   for (auto _ : state) {
      for (const auto &d : Documents()) {
         benchmark::DoNotOptimize(configstore::detail::ParseDocument(d));
      }
   }
   Done(state);
}

void BM_JsonWrite_Nlohmann(benchmark::State &state) {
   std::vector<nlohmann::ordered_json> trees;
   for (const auto &d : Documents()) {
      trees.push_back(nlohmann::ordered_json::parse(d));
   }
   for (auto _ : state) {
      for (const auto &t : trees) {
         benchmark::DoNotOptimize(t.dump());
      }
   }
   Done(state);
}

void BM_JsonWrite_RapidJson(benchmark::State &state) {
   std::vector<rapidjson::Document> trees(Documents().size());
   for (size_t i = 0; i < trees.size(); ++i) {
      trees[i].Parse(Documents()[i].data(), Documents()[i].size());
   }
   for (auto _ : state) {
      for (const auto &t : trees) {
         rapidjson::StringBuffer out;
         rapidjson::Writer<rapidjson::StringBuffer> writer(out);
         t.Accept(writer);
         benchmark::DoNotOptimize(out.GetString());
      }
   }
   Done(state);
}

void BM_JsonWrite_StoreWriter(benchmark::State &state) {
   std::vector<std::unique_ptr<configstore::detail::Tree>> trees;
   for (const auto &d : Documents()) {
      trees.push_back(configstore::detail::ParseDocument(d));
   }
   for (auto _ : state) {
      for (const auto &t : trees) {
         benchmark::DoNotOptimize(configstore::detail::SerializeDocument(*t->Root()));
      }
   }
   Done(state);
}

#define JSON_ROW(b) BENCHMARK(b)->Unit(benchmark::kMillisecond)->UseRealTime()
JSON_ROW(BM_JsonParse_Nlohmann);
JSON_ROW(BM_JsonParse_RapidJson);
JSON_ROW(BM_JsonParse_SimdjsonDom);
JSON_ROW(BM_JsonParse_SimdjsonOnDemand);
JSON_ROW(BM_JsonParse_StoreReader);
JSON_ROW(BM_JsonWrite_Nlohmann);
JSON_ROW(BM_JsonWrite_RapidJson);
JSON_ROW(BM_JsonWrite_StoreWriter);

}  // namespace
