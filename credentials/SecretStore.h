#pragma once

class QJsonObject;
class QString;

// API and stream keys, each under a short name ("openai", "apibible", "stream-" + destination),
// kept out of projects and settings. Each is held twice: in the owner-only file "secrets.json" of
// the application data folder, and in the system's credential store under "TavrinStudio/" + name.
// Main thread only; a missing secret is no error and reads as an empty string.

// The file's value if it is not empty, otherwise the credential store's.
QString readSecret(const QString& name);

// Writes the file and the credential store; true if either held. An empty value removes the
// file's entry and empties the stored credential, so that it reads as no secret.
bool storeSecret(const QString& name, const QString& value);

// The file's value alone; the credential store is not touched.
QString readSecretFile(const QString& name);

// The file's whole object; empty when the file is absent or is not a JSON object.
QJsonObject readSecretsFile();
