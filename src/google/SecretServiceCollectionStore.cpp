#pragma push_macro("signals")
#undef signals
#include <libsecret/secret.h>
#pragma pop_macro("signals")

#include "google/SecretServiceCollectionStore.h"

#include <memory>

namespace tavelo {

namespace {

const SecretSchema* keychainSchema() {
    static const SecretSchema schema = {
        "org.qt.keychain",
        SECRET_SCHEMA_DONT_MATCH_NAME,
        {{"user", SECRET_SCHEMA_ATTRIBUTE_STRING},
         {"server", SECRET_SCHEMA_ATTRIBUTE_STRING},
         {"type", SECRET_SCHEMA_ATTRIBUTE_STRING},
         {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
        0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return &schema;
}

struct GObjectDeleter {
    void operator()(gpointer object) const {
        if (object) g_object_unref(object);
    }
};
template <class T>
using GPointer = std::unique_ptr<T, GObjectDeleter>;

struct HashDeleter {
    void operator()(GHashTable* table) const {
        if (table) g_hash_table_unref(table);
    }
};

struct ItemListDeleter {
    void operator()(GList* list) const { g_list_free_full(list, g_object_unref); }
};

void clear(GError*& error) {
    if (error) g_error_free(error);
    error = nullptr;
}

// The collection, when the Secret Service has it; `status` says why not.
GPointer<SecretCollection> findCollection(const QString& path, std::int32_t& status) {
    GError* error = nullptr;
    GPointer<SecretService> service(secret_service_get_sync(SECRET_SERVICE_LOAD_COLLECTIONS, nullptr, &error));
    clear(error);
    status = SecretStatus::notAvailable;
    if (!service) return nullptr;
    status = SecretServiceCollectionStore::kNoSuchCollection;
    GList* collections = secret_service_get_collections(service.get());
    GPointer<SecretCollection> found;
    for (GList* node = collections; node; node = node->next) {
        auto* collection = static_cast<SecretCollection*>(node->data);
        if (!found && path == QString::fromUtf8(g_dbus_proxy_get_object_path(G_DBUS_PROXY(collection))))
            found.reset(static_cast<SecretCollection*>(g_object_ref(collection)));
    }
    g_list_free_full(collections, g_object_unref);
    if (!found) return nullptr;
    if (secret_collection_get_locked(found.get())) {
        status = SecretServiceCollectionStore::kCollectionLocked;
        return nullptr;
    }
    status = SecretStatus::success;
    return found;
}

std::unique_ptr<GHashTable, HashDeleter> attributes(const QByteArray& service, const QByteArray& account, bool withType) {
    std::unique_ptr<GHashTable, HashDeleter> table(g_hash_table_new(g_str_hash, g_str_equal));
    g_hash_table_insert(table.get(), const_cast<char*>("user"), const_cast<char*>(account.constData()));
    g_hash_table_insert(table.get(), const_cast<char*>("server"), const_cast<char*>(service.constData()));
    if (withType) g_hash_table_insert(table.get(), const_cast<char*>("type"), const_cast<char*>("base64"));
    return table;
}

std::unique_ptr<GList, ItemListDeleter> search(SecretCollection* collection, const QByteArray& service,
                                               const QByteArray& account, bool loadSecrets, std::int32_t& status) {
    GError* error = nullptr;
    auto query = attributes(service, account, false);
    const auto flags = static_cast<SecretSearchFlags>(SECRET_SEARCH_ALL |
                                                      (loadSecrets ? SECRET_SEARCH_LOAD_SECRETS : SECRET_SEARCH_NONE));
    GList* items = secret_collection_search_sync(collection, keychainSchema(), query.get(), flags, nullptr, &error);
    status = error ? SecretStatus::internalFailure : SecretStatus::success;
    clear(error);
    return std::unique_ptr<GList, ItemListDeleter>(items);
}

} // namespace

SecretServiceCollectionStore::SecretServiceCollectionStore(QString collectionPath)
    : collectionPath_(std::move(collectionPath)) {}

std::int32_t SecretServiceCollectionStore::open() const {
    std::int32_t status = SecretStatus::success;
    findCollection(collectionPath_, status);
    return status;
}

QCoro::Task<SecretReadResult> SecretServiceCollectionStore::read(QString service, QString account) {
    SecretReadResult result;
    auto collection = findCollection(collectionPath_, result.status);
    if (!collection) co_return result;
    auto items = search(collection.get(), service.toUtf8(), account.toUtf8(), true, result.status);
    if (result.status != SecretStatus::success) co_return result;
    if (!items) {
        result.status = SecretStatus::itemNotFound;
        co_return result;
    }
    auto* item = static_cast<SecretItem*>(items->data);
    SecretValue* value = secret_item_get_secret(item);
    if (!value) {
        result.status = SecretStatus::internalFailure;
        co_return result;
    }
    gsize length = 0;
    const gchar* bytes = secret_value_get(value, &length);
    const QByteArray stored(bytes, static_cast<qsizetype>(length));
    GHashTable* itemAttributes = secret_item_get_attributes(item);
    const char* type = static_cast<const char*>(g_hash_table_lookup(itemAttributes, "type"));
    result.data = type && QByteArray(type) == "base64" ? QByteArray::fromBase64(stored) : stored;
    g_hash_table_unref(itemAttributes);
    secret_value_unref(value);
    co_return result;
}

QCoro::Task<std::int32_t> SecretServiceCollectionStore::save(QString service, QString account, QByteArray data) {
    std::int32_t status = SecretStatus::success;
    auto collection = findCollection(collectionPath_, status);
    if (!collection) co_return status;
    const QByteArray serviceBytes = service.toUtf8(), accountBytes = account.toUtf8();
    auto itemAttributes = attributes(serviceBytes, accountBytes, true);
    const QByteArray encoded = data.toBase64();
    SecretValue* value = secret_value_new(encoded.constData(), encoded.size(), "text/plain");
    const QByteArray label = serviceBytes + " - " + accountBytes;
    GError* error = nullptr;
    GPointer<SecretItem> item(secret_item_create_sync(collection.get(), keychainSchema(), itemAttributes.get(),
                                                      label.constData(), value, SECRET_ITEM_CREATE_REPLACE, nullptr,
                                                      &error));
    secret_value_unref(value);
    status = error || !item ? SecretStatus::internalFailure : SecretStatus::success;
    clear(error);
    co_return status;
}

QCoro::Task<std::int32_t> SecretServiceCollectionStore::remove(QString service, QString account) {
    std::int32_t status = SecretStatus::success;
    auto collection = findCollection(collectionPath_, status);
    if (!collection) co_return status;
    auto items = search(collection.get(), service.toUtf8(), account.toUtf8(), false, status);
    if (status != SecretStatus::success) co_return status;
    if (!items) co_return SecretStatus::itemNotFound;
    for (GList* node = items.get(); node; node = node->next) {
        GError* error = nullptr;
        if (!secret_item_delete_sync(static_cast<SecretItem*>(node->data), nullptr, &error)) status = SecretStatus::internalFailure;
        clear(error);
    }
    co_return status;
}

} // namespace tavelo
