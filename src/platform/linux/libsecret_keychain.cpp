#include "platform/linux/libsecret_keychain.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <thread>

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

// One exchange with the keyring: cancelled when the deadline has passed.
class LibsecretKeychain::Call {
 public:
  explicit Call(LibsecretKeychain& keychain)
      : keychain_(keychain), cancellable_(g_cancellable_new()), watchdog_([this](const std::stop_token& stop) {
          const MutexLock lock(lock_);
          wake_.wait_for(lock_, stop, keychain_.deadline_, [] { return false; });
          if (!stop.stop_requested()) g_cancellable_cancel(cancellable_.get());
        }) {}

  ~Call() {
    if (error_) g_error_free(error_);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  [[nodiscard]] GCancellable* cancellable() { return cancellable_.get(); }
  [[nodiscard]] GError** error() {
    g_clear_error(&error_);
    return &error_;
  }

  // What the last step's failure means.
  [[nodiscard]] KeychainStatus status() {
    if (!error_) return KEYCHAIN_SUCCESS;
    if (g_cancellable_is_cancelled(cancellable_.get())) keychain_.leaveAlone();
    const bool isAnswer = error_->domain == SECRET_ERROR && error_->code != SECRET_ERROR_IS_LOCKED;
    return isAnswer ? KEYCHAIN_INTERNAL_ERROR : KEYCHAIN_NOT_AVAILABLE;
  }

  // Every item of the service and group, secrets loaded where they are not locked.
  [[nodiscard]] Items search(std::string_view service, std::string_view accessGroup) {
    return Items(secret_password_search_sync(
        &SCHEMA, static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL | SECRET_SEARCH_LOAD_SECRETS), cancellable(), error(),
        "service", std::string(service).c_str(), "access-group", std::string(accessGroup).c_str(), nullptr));
  }

  // Storing into a locked keyring, or into one that is yet to be made, would prompt.
  [[nodiscard]] bool canStore() {
    if (!usesSecretService()) return true;
    const std::unique_ptr<SecretService, Unref> service(
        secret_service_get_sync(SECRET_SERVICE_NONE, cancellable(), error()));
    if (!service) return false;
    const std::unique_ptr<SecretCollection, Unref> collection(secret_collection_for_alias_sync(
        service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancellable(), error()));
    return collection && secret_collection_get_locked(collection.get()) == 0;
  }

 private:
  LibsecretKeychain& keychain_;
  std::unique_ptr<GCancellable, Unref> cancellable_;
  GError* error_ = nullptr;
  Mutex lock_;
  ConditionVariable wake_;
  std::jthread watchdog_;  // last: ends first
};

Keychain::Found LibsecretKeychain::copyMatching(std::string_view service, std::string_view accessGroup) {
  if (!isAvailable()) return {.status = KEYCHAIN_NOT_AVAILABLE, .data = {}};
  Call call(*this);
  const Items items = call.search(service, accessGroup);
  if (const auto status = call.status(); status != KEYCHAIN_SUCCESS) return {.status = status, .data = {}};
  for (const GList* item = items.get(); item; item = item->next) {
    if (isLocked(item->data)) continue;
    const Secret secret(
        secret_retrievable_retrieve_secret_sync(SECRET_RETRIEVABLE(item->data), call.cancellable(), call.error()));
    if (!secret) continue;
    gsize length = 0;
    const gchar* bytes = secret_value_get(secret.get(), &length);
    return {.status = KEYCHAIN_SUCCESS, .data = std::string(bytes, length)};
  }
  if (const auto status = call.status(); status != KEYCHAIN_SUCCESS) return {.status = status, .data = {}};
  return {.status = items ? KEYCHAIN_NOT_AVAILABLE : KEYCHAIN_ITEM_NOT_FOUND, .data = {}};
}

KeychainStatus LibsecretKeychain::add(const Item& item) {
  if (!isAvailable()) return KEYCHAIN_NOT_AVAILABLE;
  Call call(*this);
  if (!call.canStore()) {
    const auto status = call.status();
    return status == KEYCHAIN_SUCCESS ? KEYCHAIN_NOT_AVAILABLE : status;
  }
  const Secret secret(secret_value_new(item.data.data(), static_cast<gssize>(item.data.size()), "text/plain"));
  secret_password_store_binary_sync(&SCHEMA, SECRET_COLLECTION_DEFAULT, item.label.c_str(), secret.get(),
                                    call.cancellable(), call.error(), "service", item.service.c_str(), "access-group",
                                    item.accessGroup.c_str(), "account", item.account.c_str(), nullptr);
  return call.status();
}

KeychainStatus LibsecretKeychain::remove(std::string_view service, std::string_view accessGroup) {
  if (!isAvailable()) return KEYCHAIN_NOT_AVAILABLE;
  Call call(*this);
  const Items items = call.search(service, accessGroup);
  if (const auto status = call.status(); status != KEYCHAIN_SUCCESS) return status;
  if (!items) return KEYCHAIN_ITEM_NOT_FOUND;
  for (const GList* item = items.get(); item; item = item->next) {
    if (isLocked(item->data)) return KEYCHAIN_NOT_AVAILABLE;  // removing it would prompt
  }
  secret_password_clear_sync(&SCHEMA, call.cancellable(), call.error(), "service", std::string(service).c_str(),
                             "access-group", std::string(accessGroup).c_str(), nullptr);
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
