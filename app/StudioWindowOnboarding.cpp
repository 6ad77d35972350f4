#include "StudioWindow.h"

#include "SecretStore.h"
#include "ValidatedPage.h"
#include "i18n.h"

#include <QCheckBox>
#include <QDesktopServices>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>
#include <QWizard>
#include <gst/gst.h>

void StudioWindow::onboarding()
{
    QWizard wizard(this);
    wizard.setWindowTitle(T("Bienvenido a Velmora"));
    wizard.setWizardStyle(QWizard::ModernStyle);
    wizard.resize(650, 450);
    wizard.setButtonText(QWizard::NextButton, T("Siguiente"));
    wizard.setButtonText(QWizard::BackButton, T("Atrás"));
    wizard.setButtonText(QWizard::FinishButton, T("Terminar"));
    wizard.setButtonText(QWizard::CancelButton, T("Cancelar"));

    auto* welcome = new ValidatedPage;
    welcome->setTitle(T("Una herramienta para compartir el servicio"));
    auto* welcomeLayout = new QVBoxLayout(welcome);
    auto* intro = new QLabel(T("Velmora es un programa local: compone las escenas en este equipo, las muestra en las "
                               "pantallas de la sala y las transmite solo a los destinos que tú configures."));
    intro->setWordWrap(true);
    welcomeLayout->addWidget(intro);
    QPushButton* credits = button(T("Créditos"));
    connect(credits, &QPushButton::clicked, this, &StudioWindow::about);
    welcomeLayout->addWidget(credits, 0, Qt::AlignLeft);
    welcomeLayout->addStretch();
    wizard.addPage(welcome);

    auto* keyPage = new ValidatedPage;
    keyPage->setTitle(T("Traducción opcional con IA"));
    auto* keyLayout = new QVBoxLayout(keyPage);
    auto* explain = new QLabel(T("Puedes añadir tu API key ahora o después. No es necesaria para producir/transmitir.\n"
                                 "La API tiene facturación separada; el audio solo se envía al iniciar IA."));
    explain->setWordWrap(true);
    keyLayout->addWidget(explain);
    auto* keyField = new QLineEdit;
    keyField->setEchoMode(QLineEdit::Password);
    keyField->setPlaceholderText(T("API key opcional"));
    keyLayout->addWidget(keyField);
    auto* saveCheck = new QCheckBox(T("Guardar en el almacén seguro de este equipo"));
    keyLayout->addWidget(saveCheck);
    keyLayout->addStretch();
    keyPage->validator = [this, &wizard, keyField, saveCheck] {
        const QString key = keyField->text();
        if (key.isEmpty())
            return true;
        aiKeyField->setText(key);
        if (!saveCheck->isChecked())
            return true;
        if (storeSecret(QStringLiteral("openai"), key))
            return true;
        QMessageBox::warning(&wizard, T("API"),
                             T("No se pudo guardar en el almacén seguro. Desmarca guardar para mantenerla solo en memoria."));
        return false;
    };
    wizard.addPage(keyPage);

    if (wizard.exec() == QDialog::Accepted)
        settings.setValue(QStringLiteral("onboarding_complete"), true);
}

void StudioWindow::about()
{
    QMessageBox box(this);
    box.setIcon(QMessageBox::Information);
    box.setWindowTitle(T("Velmora · créditos y licencias"));
    QPushButton* openLog = box.addButton(T("Abrir carpeta del registro"), QMessageBox::ActionRole);
    box.addButton(QMessageBox::Ok);
    gchar* gstVersion = gst_version_string();
    const QString libraries =
        T("Velmora usa estas bibliotecas de código abierto, enlazadas como bibliotecas compartidas:") +
        QStringLiteral("\n• ") + T("Qt %1 (Core, Gui, Widgets, Network): GNU LGPL 3.").arg(QLatin1String(qVersion())) +
        QStringLiteral("\n• ") +
        T("%1 y sus complementos (base, good, bad): GNU LGPL 2.1 o posterior.").arg(QString::fromUtf8(gstVersion)) +
        QStringLiteral("\n• ") +
        T("Códecs con licencia propia: OpenH264 (BSD de 2 cláusulas), VisualOn AAC (Apache 2.0), libvpx y "
          "libvorbis (BSD de 3 cláusulas).") +
        QStringLiteral("\n• ") + T("GLib y GObject: GNU LGPL 2.1 o posterior.") +
#ifndef Q_OS_WIN
        QStringLiteral("\n• ") + T("libsecret, el acceso al almacén de claves del sistema: GNU LGPL 2.1 o posterior.") +
#endif
        QStringLiteral("\n") +
        T("Tienes derecho a reemplazar cualquiera de estas bibliotecas por una versión modificada de ella; "
          "sus licencias y su código fuente están en las páginas de cada proyecto.");
    g_free(gstVersion);
    box.setText(libraries + QStringLiteral("\n\n") +
                T("La traducción es automática y puede contener errores. El audio seleccionado se envía a OpenAI "
                  "solo al activar IA. La voz es sintética. API con facturación separada.") +
                QStringLiteral("\n\n") +
                T("Esta versión requiere pruebas de hardware y emisión antes de usarla en un culto.") +
                QStringLiteral("\n\n") + T("Registro técnico: ") + logPath());
    box.exec();
    if (box.clickedButton() == openLog)
        QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(logPath()).absolutePath()));
}
