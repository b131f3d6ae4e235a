// store_command.cc -- the "dvsctl store" command family.
//
// put and delete go through the configuration store's client library.  The
// library reads an object value by value and hands out neither the
// instance ids of top-level objects nor the keys of an object, so "list"
// and "show" read those from the store's database (read-only, schema in
// docs/configstore.md) after the library has opened it; "show" asks the
// library's Get first, so a missing object fails with the library's code.
#include "store_command.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <configstore.h>
#include <sqlite3.h>
#include <nlohmann/json.hpp>

#include "error.h"
#include "io.h"
#include "store_state_command.h"

namespace dvsctl {
namespace {

namespace cs = configstore;

constexpr const char *kStoreFooter =
   R"(Objects are named by group, object, component and instance id; the
group, object and component default to the switches' node objects
(switches/network_tds/node).  The database is the file named by
CONFIGSTORE_PATH, else /var/lib/ostrel/configstore.db.  A failing store
call ends the command with exit status 1 and
"dvsctl: <what>: configstore code N".)";

constexpr const char *kShowFooter =
   R"(Prints the object as JSON in the shape "store put" takes: its values as
members, a singleton sub-object as a nested object, a collection of
instances as an array in creation order, each instance carrying its id as
"key".  --stored prints the document as the store keeps it instead
({"values": {...}, "subobjects": {KEY: [{"id": ID, ...}]}}).  --desired
prints the desired user configuration instead of the live object.)";

constexpr const char *kPutFooter =
   R"(FILE holds one JSON object: its members become the object's values
(strings, integers, booleans, lists of strings or integers) and nested
sub-objects, as the store's CreateObject takes them.  The object replaces
the live one, or with --desired the desired user configuration.)";

struct ObjectName {
   std::string group = "switches";
   std::string object = "network_tds";
   std::string component = "node";
   std::string id;

   std::string Describe() const { return group + "/" + object + "/" + component + "/" + id; }
};

void CheckCode(int32_t code, const std::string &what) {
   if (code != cs::kSuccess) {
      throw Error(what + ": configstore code " + std::to_string(code));
   }
}

struct StoreDeleter {
   void operator()(cs::Store *store) const noexcept { cs::DestroyStore(store); }
};
using StorePtr = std::unique_ptr<cs::Store, StoreDeleter>;

struct ObjectDeleter {
   void operator()(cs::Object *obj) const noexcept { cs::DestroyConfigStoreObject(obj); }
};
using ObjectPtr = std::unique_ptr<cs::Object, ObjectDeleter>;

StorePtr OpenStore() {
   cs::Store *store = nullptr;
   CheckCode(cs::GetStore(0, &store), "cannot open the configuration store");
   return StorePtr(store);
}

std::string DatabasePath() {
   const char *path = std::getenv(cs::kPathEnv);
   return path != nullptr && *path != '\0' ? path : cs::kDefaultPath;
}

// A read-only connection to the store's database, for what the library
// does not hand out: the instance ids of top-level objects and their
// stored documents.  Opened after GetStore, which creates the database and
// checks that it is a store.
class Database {
  public:
   Database() : path_(DatabasePath()) {
      if (sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
         Fail("cannot open");
      }
      sqlite3_busy_timeout(db_, 5000);
   }
   ~Database() { sqlite3_close(db_); }
   Database(const Database &) = delete;
   Database &operator=(const Database &) = delete;

   // The instance ids of (group, object, component) from `source`, in
   // creation order.
   std::vector<std::string> InstanceIds(const ObjectName &name, const char *source) {
      Statement stmt(*this,
                     "SELECT instance FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 "
                     "AND source = ?4 ORDER BY seq");
      stmt.Bind(name, source, false);
      std::vector<std::string> ids;
      while (stmt.Step()) {
         ids.push_back(stmt.Text());
      }
      return ids;
   }

   // The stored document of `name` from `source`; false when there is none.
   bool Document(const ObjectName &name, const char *source, std::string &doc) {
      Statement stmt(*this,
                     "SELECT doc FROM objects WHERE grp = ?1 AND obj = ?2 AND comp = ?3 "
                     "AND source = ?4 AND instance = ?5");
      stmt.Bind(name, source, true);
      if (!stmt.Step()) {
         return false;
      }
      doc = stmt.Text();
      return true;
   }

  private:
   class Statement {
     public:
      Statement(Database &db, const char *sql) : db_(db) {
         if (sqlite3_prepare_v2(db_.db_, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
            db_.Fail("cannot read");
         }
      }
      ~Statement() { sqlite3_finalize(stmt_); }
      Statement(const Statement &) = delete;
      Statement &operator=(const Statement &) = delete;

      void Bind(const ObjectName &name, const char *source, bool withId) {
         sqlite3_bind_text(stmt_, 1, name.group.c_str(), -1, SQLITE_TRANSIENT);
         sqlite3_bind_text(stmt_, 2, name.object.c_str(), -1, SQLITE_TRANSIENT);
         sqlite3_bind_text(stmt_, 3, name.component.c_str(), -1, SQLITE_TRANSIENT);
         sqlite3_bind_text(stmt_, 4, source, -1, SQLITE_STATIC);
         if (withId) {
            sqlite3_bind_text(stmt_, 5, name.id.c_str(), -1, SQLITE_TRANSIENT);
         }
      }
      bool Step() {
         const int rc = sqlite3_step(stmt_);
         if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
            db_.Fail("cannot read");
         }
         return rc == SQLITE_ROW;
      }
      std::string Text() {
         const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(stmt_, 0));
         return text != nullptr ? std::string(text, sqlite3_column_bytes(stmt_, 0)) : "";
      }

     private:
      Database &db_;
      sqlite3_stmt *stmt_ = nullptr;
   };

   [[noreturn]] void Fail(const std::string &what) {
      throw Error(path_ + ": " + what + " the store database: " +
                  (db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory"));
   }

   std::string path_;
   sqlite3 *db_ = nullptr;
};

// The stored document ({"values": {...}, "subobjects": {KEY: [{"id": ID,
// ...}]}}) in the plain shape "put" takes: values as members, a singleton
// sub-object as a nested object, instances as an array of objects carrying
// their id as "key".  Throws for what that shape cannot say (a key holding
// both a singleton and instances, a value and a sub-object of one name).
nlohmann::ordered_json PlainFromStored(const nlohmann::ordered_json &doc,
                                       const std::string &where) {
   auto fail = [&where](const std::string &why) -> nlohmann::ordered_json {
      throw Error(where + ": " + why + "; use --stored to see the stored document");
   };
   nlohmann::ordered_json out = nlohmann::ordered_json::object();
   if (auto values = doc.find("values"); values != doc.end()) {
      out = *values;
   }
   const auto subs = doc.find("subobjects");
   if (subs == doc.end()) {
      return out;
   }
   for (auto sub = subs->begin(); sub != subs->end(); ++sub) {
      if (out.contains(sub.key())) {
         return fail("\"" + sub.key() + "\" is both a value and a sub-object");
      }
      nlohmann::ordered_json instances = nlohmann::ordered_json::array();
      for (const nlohmann::ordered_json &entry : *sub) {
         const auto id = entry.find("id");
         const bool singleton = id == entry.end() || id->get<std::string>().empty();
         if (singleton && sub->size() != 1) {
            return fail("sub-object \"" + sub.key() + "\" mixes a singleton and instances");
         }
         nlohmann::ordered_json plain = PlainFromStored(entry, where);
         if (singleton) {
            out[sub.key()] = std::move(plain);
            break;
         }
         if (plain.contains("key")) {
            return fail("an instance of \"" + sub.key() + "\" has a value named \"key\"");
         }
         nlohmann::ordered_json instance = {{"key", *id}};
         instance.update(plain);
         instances.push_back(std::move(instance));
      }
      if (!instances.empty()) {
         out[sub.key()] = std::move(instances);
      }
   }
   return out;
}

void AddNameOptions(CLI::App *cmd, ObjectName &name) {
   cmd->add_option("--group", name.group, "Object group")->capture_default_str();
   cmd->add_option("--object", name.object, "Object name")->capture_default_str();
   cmd->add_option("--component", name.component, "Component")->capture_default_str();
}

void RunList(const ObjectName &name) {
   // Opening the store first creates the database, or reports with the
   // library's code one that is not a store.
   StorePtr store = OpenStore();
   Database db;
   for (const std::string &id : db.InstanceIds(name, cs::kSourceExternal)) {
      std::cout << id << '\n';
   }
   FlushOutput(std::cout);
}

void RunShow(const ObjectName &name, bool desired, bool stored) {
   StorePtr store = OpenStore();
   if (!desired) {
      cs::Object *obj = nullptr;
      CheckCode(cs::Get(store.get(), name.group.c_str(), name.object.c_str(),
                        name.component.c_str(), name.id.c_str(), &obj),
                "cannot get " + name.Describe());
      cs::DestroyConfigStoreObject(obj);
   }
   const std::string where = std::string(desired ? "desired " : "") + name.Describe();
   Database db;
   std::string text;
   if (!db.Document(name, desired ? cs::kSourceUser : cs::kSourceExternal, text)) {
      CheckCode(cs::kNotFound, "cannot get " + where);
   }
   const nlohmann::ordered_json doc = nlohmann::ordered_json::parse(text, nullptr, false);
   if (doc.is_discarded() || !doc.is_object()) {
      CheckCode(cs::kBadJson, where + ": stored document");
   }
   std::cout << (stored ? doc : PlainFromStored(doc, where)).dump(2) << '\n';
   FlushOutput(std::cout);
}

void RunPut(const ObjectName &name, const std::string &path, bool desired) {
   const Bytes bytes = ReadAll(path);
   const std::string json(bytes.begin(), bytes.end());
   cs::Object *raw = nullptr;
   CheckCode(cs::CreateObject(name.group.c_str(), name.object.c_str(), name.component.c_str(),
                              name.id.c_str(), json.c_str(), &raw),
             DisplayName(path) + ": cannot make " + name.Describe());
   ObjectPtr obj(raw);
   StorePtr store = OpenStore();
   CheckCode(cs::Set(store.get(), obj.get(), desired ? cs::kSourceUser : cs::kSourceExternal),
             "cannot store " + name.Describe());
}

void RunDelete(const ObjectName &name) {
   StorePtr store = OpenStore();
   CheckCode(cs::Delete(store.get(), name.group.c_str(), name.object.c_str(),
                        name.component.c_str(), name.id.c_str()),
             "cannot delete " + name.Describe());
}

}  // namespace

void AddStoreCommand(CLI::App &app) {
   CLI::App *store = app.add_subcommand("store", "Read and change the host's configuration store");
   store->require_subcommand(1);
   store->footer(kStoreFooter);

   auto listName = std::make_shared<ObjectName>();
   CLI::App *list = store->add_subcommand("list", "Print the instance ids of live objects");
   list->add_option("group", listName->group, "Object group")->capture_default_str();
   list->add_option("object", listName->object, "Object name")->capture_default_str();
   list->add_option("component", listName->component, "Component")->capture_default_str();
   list->callback([listName] { RunList(*listName); });

   struct ShowArgs {
      ObjectName name;
      bool desired = false;
      bool stored = false;
   };
   auto showArgs = std::make_shared<ShowArgs>();
   CLI::App *show = store->add_subcommand("show", "Print an object as JSON");
   show->add_option("id", showArgs->name.id, "Instance id")->required();
   show->add_flag("--desired", showArgs->desired, "The desired user configuration");
   show->add_flag("--stored", showArgs->stored, "The document as the store keeps it");
   AddNameOptions(show, showArgs->name);
   show->footer(kShowFooter);
   show->callback([showArgs] { RunShow(showArgs->name, showArgs->desired, showArgs->stored); });

   struct PutArgs {
      ObjectName name;
      std::string path;
      bool desired = false;
   };
   auto putArgs = std::make_shared<PutArgs>();
   CLI::App *put = store->add_subcommand("put", "Store an object given as JSON");
   put->add_option("id", putArgs->name.id, "Instance id")->required();
   put->add_option("file", putArgs->path, "JSON file, or - to read standard input")
      ->required()
      ->type_name("FILE|-");
   put->add_flag("--desired", putArgs->desired, "Set the desired user configuration");
   AddNameOptions(put, putArgs->name);
   put->footer(kPutFooter);
   put->callback([putArgs] { RunPut(putArgs->name, putArgs->path, putArgs->desired); });

   auto deleteName = std::make_shared<ObjectName>();
   CLI::App *del =
      store->add_subcommand("delete", "Remove an object, live and desired configuration");
   del->add_option("id", deleteName->id, "Instance id")->required();
   AddNameOptions(del, *deleteName);
   del->callback([deleteName] { RunDelete(*deleteName); });

   AddStoreStateSubcommands(*store);
}

}  // namespace dvsctl
