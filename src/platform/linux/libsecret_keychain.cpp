#include "platform/linux/libsecret_keychain.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>

#include <libsecret/secret.h>

namespace vondle {
namespace {

const SecretSchema SCHEMA = {"com.ferrow.vondle.GenericPassword",
                             SECRET_SCHEMA_DONT_MATCH_NAME,
                             {
                                 {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                 {"access-group", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                 {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                 {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
                             },
                             0,
                             nullptr,
                             nullptr,
                             nullptr,
                             nullptr,
                             nullptr,
                             nullptr,
                             nullptr};

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
};
struct FreeItems {
  void operator()(GList* items) const { g_list_free_full(items, g_object_unref); }
};
using Items = std::unique_ptr<GList, FreeItems>;
using Secret = std::unique_ptr<SecretValue, decltype([](SecretValue* value) { secret_value_unref(value); })>;

bool usesSecretService() {
  const char* backend = std::getenv("SECRET_BACKEND");
  return !backend || !*backend || std::string_view(backend) == "service";
}

// Asking for a bus where there is none would start one.
bool hasSessionBus() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return runtime && *runtime && access((std::string(runtime) + "/bus").c_str(), F_OK) == 0;
}

bool isLocked(gpointer item) {
  return SECRET_IS_ITEM(item) && secret_item_get_locked(SECRET_ITEM(item)) != 0;
}

}  // namespace

// One exchange with the keyring, in an event loop of its own, which a source ends when the deadline has passed. The
// loop goes last, so that what the libraries leave in it (they clean up after themselves in idle tasks) still runs.
class LibsecretKeychain::Call {
 public:
  explicit Call(LibsecretKeychain& keychain)
      : keychain_(keychain), context_(g_main_context_new()), cancellable_(g_cancellable_new()) {
    g_main_context_push_thread_default(context_.get());
    deadline_.reset(g_timeout_source_new(static_cast<guint>(keychain.deadline_ / std::chrono::milliseconds(1))));
    g_source_set_callback(deadline_.get(), &Call::deadlinePassed, this, nullptr);
    g_source_attach(deadline_.get(), context_.get());
    if (usesSecretService()) connect();
  }

  ~Call() {
    g_source_destroy(deadline_.get());
    result_.reset();
    while (g_main_context_iteration(context_.get(), FALSE) != 0) {
    }
    g_main_context_pop_thread_default(context_.get());
    g_clear_error(&error_);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // What the last step's failure means.
  [[nodiscard]] KeychainStatus status() const {
    if (!error_) return KEYCHAIN_SUCCESS;
    const bool isAnswer = error_->domain == SECRET_ERROR && error_->code != SECRET_ERROR_IS_LOCKED;
    return isAnswer ? KEYCHAIN_INTERNAL_ERROR : KEYCHAIN_NOT_AVAILABLE;
  }

  // Every item of the service and group, secrets loaded where they are not locked.
  [[nodiscard]] Items search(std::string_view service, std::string_view accessGroup) {
    if (error_) return nullptr;
    wait([&] {
      secret_password_search(&SCHEMA, static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_LOAD_SECRETS),
                             cancellable_.get(), &Call::finished, this, "service", std::string(service).c_str(),
                             "access-group", std::string(accessGroup).c_str(), nullptr);
    });
    return Items(secret_password_search_finish(result_.get(), error()));
  }

  [[nodiscard]] Secret secretOf(gpointer item) {
    auto* const retrievable = SECRET_RETRIEVABLE(item);
    wait([&] { secret_retrievable_retrieve_secret(retrievable, cancellable_.get(), &Call::finished, this); });
    return Secret(secret_retrievable_retrieve_secret_finish(retrievable, result_.get(), error()));
  }

  // Storing into a locked keyring, or into one that is yet to be made, would prompt.
  [[nodiscard]] bool canStore() {
    if (error_ || !usesSecretService()) return !error_;
    wait([&] { secret_service_get(SECRET_SERVICE_NONE, cancellable_.get(), &Call::finished, this); });
    const std::unique_ptr<SecretService, Unref> service(secret_service_get_finish(result_.get(), error()));
    if (!service) return false;
    wait([&] {
      secret_collection_for_alias(service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancellable_.get(),
                                  &Call::finished, this);
    });
    const std::unique_ptr<SecretCollection, Unref> collection(
        secret_collection_for_alias_finish(result_.get(), error()));
    return collection && secret_collection_get_locked(collection.get()) == 0;
  }

  void store(const Item& item) {
    const Secret secret(secret_value_new(item.data.data(), static_cast<gssize>(item.data.size()), "text/plain"));
    wait([&] {
      secret_password_store_binary(&SCHEMA, SECRET_COLLECTION_DEFAULT, item.label.c_str(), secret.get(),
                                   cancellable_.get(), &Call::finished, this, "service", item.service.c_str(),
                                   "access-group", item.accessGroup.c_str(), "account", item.account.c_str(), nullptr);
    });
    secret_password_store_finish(result_.get(), error());
  }

  void clear(std::string_view service, std::string_view accessGroup) {
    wait([&] {
      secret_password_clear(&SCHEMA, cancellable_.get(), &Call::finished, this, "service", std::string(service).c_str(),
                            "access-group", std::string(accessGroup).c_str(), nullptr);
    });
    secret_password_clear_finish(result_.get(), error());
  }

 private:
  static gboolean deadlinePassed(gpointer self) {
    auto& call = *static_cast<Call*>(self);
    call.keychain_.leaveAlone();
    g_cancellable_cancel(call.cancellable_.get());
    return G_SOURCE_REMOVE;
  }

  static void finished(GObject* /*source*/, GAsyncResult* result, gpointer self) {
    static_cast<Call*>(self)->result_.reset(G_ASYNC_RESULT(g_object_ref(result)));
  }

  // The libraries share this connection. By default its end would end the process.
  void connect() {
    wait([&] { g_bus_get(G_BUS_TYPE_SESSION, cancellable_.get(), &Call::finished, this); });
    const std::unique_ptr<GDBusConnection, Unref> connection(g_bus_get_finish(result_.get(), error()));
    if (connection) g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
  }

  template <class Start>
  void wait(Start start) {
    result_.reset();
    start();
    while (!result_) g_main_context_iteration(context_.get(), TRUE);
  }

  [[nodiscard]] GError** error() {
    g_clear_error(&error_);
    return &error_;
  }

  LibsecretKeychain& keychain_;
  const std::unique_ptr<GMainContext, decltype([](GMainContext* context) { g_main_context_unref(context); })> context_;
  const std::unique_ptr<GCancellable, Unref> cancellable_;
  std::unique_ptr<GSource, decltype([](GSource* source) { g_source_unref(source); })> deadline_;
  std::unique_ptr<GAsyncResult, Unref> result_;  // of the last step
  GError* error_ = nullptr;                      // of the last step
};

Keychain::Found LibsecretKeychain::copyMatching(std::string_view service, std::string_view accessGroup) {
  for (int attempt = 0; attempt < 2 && isAvailable(); ++attempt) {
    if (auto found = find(service, accessGroup)) return *std::move(found);
    // Perhaps the keyring's program was started anew since: what is remembered of the old one is of no use.
    secret_service_disconnect();
  }
  return {.status = KEYCHAIN_NOT_AVAILABLE, .data = {}};
}

// None when the exchange failed.
std::optional<Keychain::Found> LibsecretKeychain::find(std::string_view service, std::string_view accessGroup) {
  Call call(*this);
  const Items items = call.search(service, accessGroup);
  for (const GList* item = items.get(); item; item = item->next) {
    if (isLocked(item->data)) continue;
    const Secret secret = call.secretOf(item->data);
    if (!secret) continue;
    gsize length = 0;
    const gchar* bytes = secret_value_get(secret.get(), &length);
    return Found{.status = KEYCHAIN_SUCCESS, .data = std::string(bytes, length)};
  }
  if (call.status() != KEYCHAIN_SUCCESS) return std::nullopt;
  return Found{.status = items ? KEYCHAIN_NOT_AVAILABLE : KEYCHAIN_ITEM_NOT_FOUND, .data = {}};
}

KeychainStatus LibsecretKeychain::add(const Item& item) {
  if (!isAvailable()) return KEYCHAIN_NOT_AVAILABLE;
  Call call(*this);
  if (!call.canStore()) return call.status() == KEYCHAIN_SUCCESS ? KEYCHAIN_NOT_AVAILABLE : call.status();
  call.store(item);
  return call.status();
}

KeychainStatus LibsecretKeychain::remove(std::string_view service, std::string_view accessGroup) {
  if (!isAvailable()) return KEYCHAIN_NOT_AVAILABLE;
  Call call(*this);
  const Items items = call.search(service, accessGroup);
  if (call.status() != KEYCHAIN_SUCCESS) return call.status();
  if (!items) return KEYCHAIN_ITEM_NOT_FOUND;
  for (const GList* item = items.get(); item; item = item->next) {
    if (isLocked(item->data)) return KEYCHAIN_NOT_AVAILABLE;  // removing it would prompt
  }
  call.clear(service, accessGroup);
  return call.status();
}

bool LibsecretKeychain::isAvailable() {
  {
    const MutexLock lock(lock_);
    if (clock_.monotonic() < notBefore_) return false;
  }
  return !usesSecretService() || hasSessionBus();
}

void LibsecretKeychain::leaveAlone() {
  const auto now = clock_.monotonic();
  const MutexLock lock(lock_);
  notBefore_ = now + LEFT_ALONE;
}

}  // namespace vondle
