#include "TlsTrust.h"

#include <gio/gio.h>

TlsTrust::TlsTrust(const QString& caFile)
{
    GTlsBackend* backend = g_tls_backend_get_default();
    GError* error = nullptr;
    GTlsDatabase* database = nullptr;
    if (!backend || !g_tls_backend_supports_tls(backend))
        failure = QStringLiteral("GIO has no TLS backend (package glib-networking)");
    else if (!(database = g_tls_file_database_new(caFile.toLocal8Bit().constData(), &error)))
        failure =
            QStringLiteral("cannot load %1: %2").arg(caFile, QString::fromUtf8(error ? error->message : "?"));
    g_clear_error(&error);
    if (!database)
        return;
    // Connections pick the default database up when they verify, so this reaches elements that never
    // heard of it. The backend keeps its own reference.
    g_tls_backend_set_default_database(backend, database);
    g_object_unref(database);
    installed = true;
}

TlsTrust::~TlsTrust()
{
    // Back to the backend's own system store.
    if (installed)
        g_tls_backend_set_default_database(g_tls_backend_get_default(), nullptr);
}
