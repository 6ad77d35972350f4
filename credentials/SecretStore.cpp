#include "SecretStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QString>

#if defined(Q_OS_WIN)
#include <memory>
#include <string>
#include <windows.h>
#include <wincred.h>
#elif defined(Q_OS_LINUX)
#include "GstPtr.h"
#include <functional>
#include <libsecret/secret.h>
#include <memory>
#endif

namespace {

QString secretsFilePath()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    return folder.isEmpty() ? QString() : folder + QStringLiteral("/secrets.json");
}

// The whole object is written over the old file; its permissions are owner-only before the new
// contents go in, so that no key is readable by others at any moment.
bool writeSecretsFile(const QJsonObject& secrets)
{
    const QString path = secretsFilePath();
    if (path.isEmpty() || !QDir().mkpath(QFileInfo(path).path()))
        return false;
    constexpr QFileDevice::Permissions ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
    QFile file(path);
    if (file.exists())
        file.setPermissions(ownerOnly);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate, ownerOnly))
        return false;
    const QByteArray bytes = QJsonDocument(secrets).toJson(QJsonDocument::Compact);
    const bool written = file.write(bytes) == bytes.size() && file.flush();
    file.close();
    return file.setPermissions(ownerOnly) && written;
}

[[maybe_unused]] QString targetName(const QString& name)
{
    return QStringLiteral("TavrinStudio/") + name;
}

#if defined(Q_OS_WIN)

// The Windows credential store. Written to be built on Windows; not run on the machines where
// the rest of the store is tested.

struct CredentialFree
{
    void operator()(PCREDENTIALW credential) const { CredFree(credential); }
};

QString platformRead(const QString& name)
{
    const std::wstring target = targetName(name).toStdWString();
    PCREDENTIALW raw = nullptr;
    if (!CredReadW(target.c_str(), CRED_TYPE_GENERIC, 0, &raw))
        return {};
    const std::unique_ptr<CREDENTIALW, CredentialFree> credential(raw);
    return QString::fromUtf8(reinterpret_cast<const char*>(credential->CredentialBlob),
                             qsizetype(credential->CredentialBlobSize));
}

// The store has no delete here: an empty value is written as an empty blob, which reads back as
// no secret.
bool platformWrite(const QString& name, const QString& value)
{
    std::wstring target = targetName(name).toStdWString();
    QByteArray blob = value.toUtf8();
    CREDENTIALW credential{};
    credential.Type = CRED_TYPE_GENERIC;
    credential.TargetName = target.data();
    credential.CredentialBlobSize = DWORD(blob.size());
    credential.CredentialBlob = blob.isEmpty() ? nullptr : reinterpret_cast<LPBYTE>(blob.data());
    credential.Persist = CRED_PERSIST_LOCAL_MACHINE;
    return CredWriteW(&credential, 0);
}

#elif defined(Q_OS_LINUX)

// The Secret Service (GNOME Keyring, KWallet and the like) over D-Bus, through libsecret. A missing
// session bus, a missing service or a locked store is no error: the file serves alone.

const SecretSchema* schema()
{
    static const SecretSchema value = {
        .name = "com.lorvane.TavrinStudio",
        .flags = SECRET_SCHEMA_NONE,
        .attributes = {{"target", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
        .reserved = 0,
        .reserved1 = nullptr,
        .reserved2 = nullptr,
        .reserved3 = nullptr,
        .reserved4 = nullptr,
        .reserved5 = nullptr,
        .reserved6 = nullptr,
        .reserved7 = nullptr,
    };
    return &value;
}

// The calls run on a button press in the GUI thread, so each is given up after this long, an
// unanswered unlock prompt included; the file has been written or read by then.
constexpr guint serviceBoundMs = 5000;
// A cancelled call normally reports at once; this much more is allowed before it is left behind.
constexpr guint cancelGraceMs = 1000;

struct Pending
{
    bool done = false;
    gstptr::GlibObject<GAsyncResult> result;
};

void onFinished(GObject*, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<std::shared_ptr<Pending>> pending(static_cast<std::shared_ptr<Pending>*>(data));
    (*pending)->result.reset(G_ASYNC_RESULT(g_object_ref(result)));
    (*pending)->done = true;
}

gboolean cancelCall(gpointer cancellable)
{
    g_cancellable_cancel(G_CANCELLABLE(cancellable));
    return G_SOURCE_REMOVE;
}

gboolean giveUp(gpointer flag)
{
    *static_cast<bool*>(flag) = true;
    return G_SOURCE_REMOVE;
}

using StartCall = std::function<void(GCancellable*, GAsyncReadyCallback, gpointer)>;

// Runs one asynchronous libsecret call on a private context until it reports, cancelling it at
// the bound. Returns its result, or nothing if even the cancelled call never reported; then its
// small state is left to the call rather than freed under it.
gstptr::GlibObject<GAsyncResult> runBounded(const StartCall& start)
{
    const gstptr::MainContext context(g_main_context_new());
    gstptr::GlibObject<GAsyncResult> result;
    {
        const gstptr::ThreadDefaultContext scope(context.get());
        const gstptr::GlibObject<GCancellable> cancellable(g_cancellable_new());
        bool givenUp = false;
        const gstptr::Source bound(g_timeout_source_new(serviceBoundMs));
        g_source_set_callback(bound.get(), cancelCall, cancellable.get(), nullptr);
        g_source_attach(bound.get(), context.get());
        const gstptr::Source grace(g_timeout_source_new(serviceBoundMs + cancelGraceMs));
        g_source_set_callback(grace.get(), giveUp, &givenUp, nullptr);
        g_source_attach(grace.get(), context.get());

        const auto pending = std::make_shared<Pending>();
        start(cancellable.get(), onFinished, new std::shared_ptr<Pending>(pending));
        while (!pending->done && !givenUp)
            g_main_context_iteration(context.get(), TRUE);
        result = std::move(pending->result);

        // The shared service proxy would otherwise stay subscribed to signals on this context,
        // which nobody iterates again; the next call connects afresh, which also survives a
        // restarted keyring daemon.
        secret_service_disconnect();
    }
    return result;
}

QString platformRead(const QString& name)
{
    const QByteArray target = targetName(name).toUtf8();
    const auto result = runBounded([&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
        secret_password_lookup(schema(), cancellable, callback, data, "target", target.constData(), nullptr);
    });
    if (!result)
        return {};
    GError* rawError = nullptr;
    const gstptr::String secret(secret_password_lookup_finish(result.get(), &rawError));
    const gstptr::Error error(rawError);
    if (!secret)
        return {};
    const QString value = QString::fromUtf8(secret.get());
    secret_password_wipe(secret.get());
    return value;
}

bool platformWrite(const QString& name, const QString& value)
{
    const QByteArray target = targetName(name).toUtf8();
    GError* rawError = nullptr;
    if (value.isEmpty()) {
        // The Secret Service can delete, so an emptied secret takes its item away rather than
        // leaving an empty one in the user's keyring; a read then finds no secret, as with an empty
        // credential. Nothing to delete counts as held.
        const auto result = runBounded([&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
            secret_password_clear(schema(), cancellable, callback, data, "target", target.constData(), nullptr);
        });
        if (!result)
            return false;
        secret_password_clear_finish(result.get(), &rawError);
        const gstptr::Error error(rawError);
        return !error;
    }
    const QByteArray secret = value.toUtf8();
    const auto result = runBounded([&](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
        secret_password_store(schema(), SECRET_COLLECTION_DEFAULT, target.constData(), secret.constData(),
                              cancellable, callback, data, "target", target.constData(), nullptr);
    });
    if (!result)
        return false;
    const bool stored = secret_password_store_finish(result.get(), &rawError);
    const gstptr::Error error(rawError);
    return stored && !error;
}

#else

// No credential store on this platform: the file serves alone.
QString platformRead(const QString&)
{
    return {};
}

bool platformWrite(const QString&, const QString&)
{
    return false;
}

#endif

} // namespace

QJsonObject readSecretsFile()
{
    const QString path = secretsFilePath();
    if (path.isEmpty())
        return {};
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

QString readSecretFile(const QString& name)
{
    return readSecretsFile().value(name).toString();
}

QString readSecret(const QString& name)
{
    const QString fromFile = readSecretFile(name);
    if (!fromFile.isEmpty())
        return fromFile;
    return platformRead(name);
}

bool storeSecret(const QString& name, const QString& value)
{
    QJsonObject secrets = readSecretsFile();
    if (value.isEmpty())
        secrets.remove(name);
    else
        secrets.insert(name, value);
    const bool fileHeld = writeSecretsFile(secrets);
    const bool storeHeld = platformWrite(name, value);
    return fileHeld || storeHeld;
}
