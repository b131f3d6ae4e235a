// store_command.cc -- the "dvsctl store" command family.
//
// Every command goes through the configuration store's client library, so
// it works on whichever store CONFIGSTORE_URL / CONFIGSTORE_PATH select;
// "list" and "show" take instance ids and stored documents from the
// library's GetInstanceId and GetStoredDocument.
#include "store_command.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <configstore.h>
#include <nlohmann/json.hpp>

#include "error.h"
#include "io.h"
#include "store_error.h"
#include "store_state_command.h"

namespace dvsctl {
namespace {

namespace cs = configstore;

constexpr const char *kStoreFooter =
   R"(Objects are named by group, object, component and instance id; the
group, object and component default to the switches' node objects
(switches/network_tds/node).  The store is the etcd cluster named by
CONFIGSTORE_URL (etcd://HOST:PORT[,...]/PREFIX, this host's namespace
CONFIGSTORE_HOST), else the file named by CONFIGSTORE_PATH, else
/var/lib/ostrel/configstore.db.  A failing store
call ends the command with exit status 1 and a message of the form
  dvsctl: <what>: <reason> (<name>, configstore code N)
with the store's location before the reason when the store as a whole
failed.)";

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

struct StoreDeleter {
   void operator()(cs::Store *store) const noexcept { cs::DestroyStore(store); }
};
using StorePtr = std::unique_ptr<cs::Store, StoreDeleter>;

struct ObjectDeleter {
   void operator()(cs::Object *obj) const noexcept { cs::DestroyConfigStoreObject(obj); }
};
using ObjectPtr = std::unique_ptr<cs::Object, ObjectDeleter>;

StorePtr OpenStore() {
   return StorePtr(OpenConfigStore());
}

// Frees what the library hands out with malloc.
struct FreeDeleter {
   void operator()(void *p) const noexcept { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// The objects of an array the library handed out, released together.
class ObjectArray {
  public:
   ObjectArray() = default;
   ~ObjectArray() {
      for (uint32_t i = 0; i < count; i++) {
         cs::DestroyConfigStoreObject(items[i]);
      }
      std::free(items);
   }
   ObjectArray(const ObjectArray &) = delete;
   ObjectArray &operator=(const ObjectArray &) = delete;

   cs::Object **items = nullptr;
   uint32_t count = 0;
};

std::string InstanceId(cs::Object *obj) {
   char *raw = nullptr;
   CheckStoreCode(cs::GetInstanceId(obj, &raw), "cannot read an instance id");
   return CString(raw).get();
}

// The stored document of a top-level object, parsed.
nlohmann::ordered_json StoredDocument(cs::Object *obj, const std::string &where) {
   char *raw = nullptr;
   CheckStoreCode(cs::GetStoredDocument(obj, &raw), where + ": stored document");
   const CString text(raw);
   nlohmann::ordered_json doc = nlohmann::ordered_json::parse(text.get(), nullptr, false);
   if (doc.is_discarded() || !doc.is_object()) {
      CheckStoreCode(cs::kBadJson, where + ": stored document");
   }
   return doc;
}

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
   StorePtr store = OpenStore();
   cs::FilterSpec *raw = nullptr;
   CheckStoreCode(cs::CreateFilterSpecObject(name.group.c_str(), name.object.c_str(),
                                             name.component.c_str(), "", &raw),
                  "cannot list " + name.Describe());
   const std::unique_ptr<cs::FilterSpec, void (*)(cs::FilterSpec *)> filter(
      raw, cs::DestroyFilterSpecObject);
   ObjectArray objects;
   CheckStoreCode(cs::GetInstances(store.get(), filter.get(), &objects.items, &objects.count),
                  "cannot list " + name.Describe());
   for (uint32_t i = 0; i < objects.count; i++) {
      std::cout << InstanceId(objects.items[i]) << '\n';
   }
   FlushOutput(std::cout);
}

void RunShow(const ObjectName &name, bool desired, bool stored) {
   const std::string where = std::string(desired ? "desired " : "") + name.Describe();
   nlohmann::ordered_json doc;
   if (!desired) {
      StorePtr store = OpenStore();
      cs::Object *raw = nullptr;
      CheckStoreCode(cs::Get(store.get(), name.group.c_str(), name.object.c_str(),
                             name.component.c_str(), name.id.c_str(), &raw),
                     "cannot get " + name.Describe());
      const ObjectPtr obj(raw);
      doc = StoredDocument(obj.get(), where);
   } else {
      ObjectArray objects;
      CheckStoreCode(
         cs::GetDesiredUserConfigInstances(name.group.c_str(), name.object.c_str(),
                                           name.component.c_str(), &objects.items, &objects.count),
         "cannot get " + where);
      uint32_t i = 0;
      while (i < objects.count && InstanceId(objects.items[i]) != name.id) {
         i++;
      }
      if (i == objects.count) {
         CheckStoreCode(cs::kNotFound, "cannot get " + where);
      }
      doc = StoredDocument(objects.items[i], where);
   }
   std::cout << (stored ? doc : PlainFromStored(doc, where)).dump(2) << '\n';
   FlushOutput(std::cout);
}

void RunPut(const ObjectName &name, const std::string &path, bool desired) {
   const Bytes bytes = ReadAll(path);
   const std::string json(bytes.begin(), bytes.end());
   cs::Object *raw = nullptr;
   CheckStoreCode(cs::CreateObject(name.group.c_str(), name.object.c_str(), name.component.c_str(),
                                   name.id.c_str(), json.c_str(), &raw),
                  DisplayName(path) + ": cannot make " + name.Describe());
   ObjectPtr obj(raw);
   StorePtr store = OpenStore();
   CheckStoreCode(cs::Set(store.get(), obj.get(), desired ? cs::kSourceUser : cs::kSourceExternal),
                  "cannot store " + name.Describe());
}

void RunDelete(const ObjectName &name) {
   StorePtr store = OpenStore();
   CheckStoreCode(cs::Delete(store.get(), name.group.c_str(), name.object.c_str(),
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
