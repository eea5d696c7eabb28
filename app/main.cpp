// tarnwick-gateway: the window (default) or the headless mode, one instance per user.
#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QLockFile>
#include <QMessageBox>
#include <QStandardPaths>

#include <csignal>
#include <cstdio>
#include <memory>

#include "app/GatewayOptions.h"
#include "app/HeadlessView.h"
#include "app/Main.h"
#include "app/MainWindow.h"
#include "core/MessageBox.h"
#include "core/Version.h"
#include "mailservice/CHotmail.h"
#include "platform/http/HttpRequest.h"

namespace {

constexpr int kAlreadyRunning = 3;

// Per user: the runtime folder is private to the user; the temp folder is the fallback.
QString LockFilePath() {
    QString folder = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (folder.isEmpty() || !QDir(folder).exists()) folder = QDir::tempPath();
    return QDir(folder).filePath("tarnwick-gateway.lock");
}

}  // namespace

int main(int argc, char** argv) {
    // Under a file size limit, a write past it then fails like a full disk (the fetched messages' file
    // reports "Disk full" to the mail reader) instead of ending the program.
    (void)std::signal(SIGXFSZ, SIG_IGN);
    // The window mode needs a display; the headless mode, --help and --version must not.
    std::unique_ptr<QCoreApplication> application;
    if (app::GatewayOptions::NeedsNoDisplay(argc, argv)) {
        application = std::make_unique<QCoreApplication>(argc, argv);
    } else {
        application = std::make_unique<QApplication>(argc, argv);
    }
    QCoreApplication::setApplicationName("tarnwick-gateway");
    QCoreApplication::setApplicationVersion(QString::fromLatin1(core::Version::kText));
    const app::GatewayOptions options = app::GatewayOptions::Parse(*application);
    // Before any server starts, so that the first connection's service client already uses it.
    if (options.serviceUrl) mailservice::CHotmail::SetServiceEntryURL(*options.serviceUrl);
    if (options.serviceCa) platform::HttpRequest::SetServiceCaFile(*options.serviceCa);
    platform::HttpRequest::SetLimits(options.httpLimits);

    QLockFile lock(LockFilePath());
    if (!lock.tryLock(0)) {
        const QString message = QStringLiteral(
                                    "Another instance of Tarnwick Gateway is already running for this user (lock "
                                    "file %1); only one may run at a time.")
                                    .arg(lock.fileName());
        std::fprintf(stderr, "tarnwick-gateway: %s\n", qPrintable(message));
        // Started from a desktop menu, standard error goes nowhere a person looks.
        if (!options.headless) QMessageBox::warning(nullptr, "Tarnwick Gateway", message);
        return kAlreadyRunning;
    }

    std::unique_ptr<app::IMainView> view;
    app::MainWindow* window = nullptr;
    if (options.headless) {
        view = std::make_unique<app::HeadlessView>();
    } else {
        auto widgets = std::make_unique<app::MainWindow>();
        window = widgets.get();
        view = std::move(widgets);
    }

    app::Main main(*view, options);
    core::MessageBox::SetHandler([&view](const std::string& text) { view->ShowMessage(text); });
    main.SetProgramEnd(app::Main::Fatal(*view, [&lock] { lock.unlock(); }));
    if (window) window->Attach(main);

    main.RunEvent(&app::Main::Form_Load);
    if (window) window->show();
    return application->exec();
}
