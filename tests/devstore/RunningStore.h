#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "devstore/DevStore.h"
#include "platform/PropertyList/PropertyList.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow::devstore {

// A store in this process, and clients of it that keep their connection.
class RunningStore {
 public:
  RunningStore() { start(false); }

  void restart(bool fresh) {
    http.reset();
    https.reset();
    store.reset();
    start(fresh);
  }

  void stage(std::string_view json) {
    const std::optional<Error> error = store->stage(json);
    ASSERT_FALSE(error) << error->localizedDescription();
  }

  // The body of an answer as a dictionary; an empty one after a failure.
  Dictionary dictionary(const std::string& path) {
    const httplib::Result answer = http->Get(path);
    if (!answer) return {};
    return decode(Data(answer->body));
  }
  static Dictionary decode(const Data& bytes) {
    const auto value = PropertyList::decode(bytes);
    return value && value->dictionary() != nullptr ? *value->dictionary() : Dictionary();
  }

  TemporaryFolder directory;
  std::unique_ptr<DevStore> store;
  std::unique_ptr<httplib::Client> http, https;

 private:
  void start(bool fresh) {
    DevStore::Options options;
    options.stateDirectory = directory.path() / "store";
    options.fresh = fresh;
    auto started = DevStore::start(options);
    if (!started) {
      ADD_FAILURE() << started.error().localizedDescription();
      std::abort();
    }
    store = std::move(*started);
    http = std::make_unique<httplib::Client>(store->urls().http);
    https = std::make_unique<httplib::Client>(store->urls().https);
    https->set_ca_cert_path(store->tlsAuthorityFile().string());
    for (httplib::Client* client : {http.get(), https.get()}) {
      client->set_keep_alive(true);
      client->set_tcp_nodelay(true);
      client->set_follow_location(false);
      client->set_read_timeout(30);
    }
  }
};

}  // namespace tallow::devstore
