// SPDX-License-Identifier: GPL-3.0-or-later
// Draws the widget in each of its states, themes and appearances, and each section of the settings
// window, into PNG files, on whatever platform Qt runs (offscreen is enough): a narration of a tone plays
// on the null sink so that the waveform, times and buttons show what they show during a real one.
#include "OnboardingShots.h"
#include "SettingsShots.h"
#include "ShotSupport.h"
#include "TrayShots.h"
#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/null/NullPanelHints.h"
#include "speech/FollowAlong.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"
#include "updates/UpdateWindow.h"
#include "widget/FloatingWidgetViewModel.h"
#include "widget/FloatingWindowController.h"

#include <QDir>
#include <QGuiApplication>
#include <QPalette>
#include <QQuickView>
#include <QTemporaryDir>
#include <QTextStream>
#include <QtEndian>

#include <cmath>

namespace {

// A voice-like tone whose loudness swells, so that the bars differ.
QByteArray tone(double seconds)
{
    const int frames = int(seconds * SpeechManager::kSampleRateHz);
    QByteArray pcm(frames * 2, '\0');
    for (int i = 0; i < frames; ++i) {
        const double t = double(i) / SpeechManager::kSampleRateHz;
        const double envelope = 0.2 + 0.12 * std::sin(2 * M_PI * 3.1 * t);
        const auto sample = qint16(std::lround(32767 * envelope * std::sin(2 * M_PI * 220 * t)));
        qToLittleEndian(sample, pcm.data() + 2 * i);
    }
    return pcm;
}

} // namespace

int main(int argc, char *argv[])
{
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    QGuiApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILLVOX_VERSION));
    const QStringList args = app.arguments();
    const QDir out(args.value(1, QStringLiteral("screenshots")));
    const QString suffix = args.value(2); // e.g. "@2x"
    QDir().mkpath(out.path());

    QTemporaryDir dir;
    UserDefaults defaults(dir.filePath(QStringLiteral("settings.conf")));
    KeychainHelper keychain(QStringLiteral("screenshots"), std::make_unique<MemorySecretStore>());
    NoSelection selection;
    NoAccount account;
    auto sink = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
    NullAudioSink *device = sink.get();
    SpeechManager::Services services;
    services.defaults = &defaults;
    services.keychain = &keychain;
    services.selection = &selection;
    services.account = &account;
    services.audioSink = std::move(sink);
    SpeechManager speech(std::move(services));

    FloatingWindowController::Services windowServices;
    windowServices.speech = &speech;
    windowServices.hints = std::make_unique<NullPanelHints>();
    FloatingWindowController controller(std::move(windowServices));
    FloatingWidgetViewModel &vm = *controller.viewModel();
    controller.showWidget();
    QQuickView &window = *controller.window();

    int written = 0;
    const auto shoot = [&](const QString &name) {
        settle(250);
        const QString path = out.filePath(QStringLiteral("widget-") + name + suffix + QStringLiteral(".png"));
        if (!window.grabWindow().save(path)) {
            QTextStream(stderr) << "could not write " << path << Qt::endl;
            return;
        }
        ++written;
    };
    // Plays on from where it is for `seconds` of device time, while the view animates.
    const auto play = [&](double seconds) {
        for (int i = 0; i < int(seconds * 100); ++i) {
            device->advance(240);
            if (i % 2 == 0)
                settle(1);
        }
    };

    shoot(QStringLiteral("idle"));
    vm.setHovered(true);
    shoot(QStringLiteral("idle-expanded"));
    vm.setHovered(false);
    settle(300);

    speech.replayStoredAudio(tone(48));
    play(12.4);
    shoot(QStringLiteral("playing"));
    vm.setHovered(true);
    play(0.3);
    shoot(QStringLiteral("playing-expanded"));
    vm.toggleFullControls();
    play(0.3);
    shoot(QStringLiteral("playing-full-controls"));

    for (WidgetAppearance appearance : allWidgetAppearances()) {
        speech.setWidgetAppearance(appearance);
        for (WidgetTheme theme : allWidgetThemes()) {
            speech.setWidgetTheme(theme);
            play(0.3);
            shoot(QStringLiteral("theme-") + rawValue(appearance).toLower() + u'-' +
                  rawValue(theme).toLower());
        }
    }

    // Following along: a sentence longer than its two lines, then a short one.
    speech.followAlong()->startComplete(
        QStringLiteral(
            "Highlight text in any application and press the shortcut: Quillvox streams speech for "
            "it while it is still arriving, and shows here the sentence you are hearing so that your "
            "eyes can follow along. A short one fits a line."),
        qint64(48) * SpeechManager::kSampleRateHz);
    const std::pair<WidgetAppearance, WidgetTheme> looks[] = {{WidgetAppearance::Dark, WidgetTheme::Default},
                                                              {WidgetAppearance::Dark, WidgetTheme::Aurora},
                                                              {WidgetAppearance::Light, WidgetTheme::Default},
                                                              {WidgetAppearance::Light, WidgetTheme::Sunset}};
    for (const QString &part : {QStringLiteral("long"), QStringLiteral("short")}) {
        if (part == u"short")
            speech.seekToFrame(qint64(46) * SpeechManager::kSampleRateHz);
        for (const auto &[appearance, theme] : looks) {
            speech.setWidgetAppearance(appearance);
            speech.setWidgetTheme(theme);
            play(0.3);
            shoot(QStringLiteral("follow-along-%1-%2-%3")
                      .arg(part, rawValue(appearance).toLower(), rawValue(theme).toLower()));
        }
    }
    speech.followAlong()->clear();
    speech.setWidgetTheme(WidgetTheme::Default);
    speech.setWidgetAppearance(WidgetAppearance::Dark);
    vm.toggleFullControls();
    vm.setHovered(false);
    settle(300);

    speech.togglePlayPause();
    shoot(QStringLiteral("paused"));

    speech.stop();
    speech.setCurrentError(SpeechError::make(SpeechError::accessibilityPermissionMissing));
    shoot(QStringLiteral("error-permission"));
    speech.setWidgetAppearance(WidgetAppearance::Light);
    shoot(QStringLiteral("error-permission-light"));
    speech.setWidgetAppearance(WidgetAppearance::Dark);
    speech.setCurrentError(SpeechError::makeNetworkError(QStringLiteral("Could not connect to the server.")));
    shoot(QStringLiteral("error-other"));

    written += shootOnboarding(out, suffix, speech);
    const QPalette light = QGuiApplication::palette();
    QGuiApplication::setPalette(darkPalette());
    written += shootOnboarding(out, QStringLiteral("-dark") + suffix, speech);
    QGuiApplication::setPalette(light);
    speech.setCurrentError(std::nullopt);
    controller.hideWidget();
    written += shootSettingsWindow(out, suffix, speech, defaults, keychain);

    // The update window offering a new version, in either palette.
    UpdateChecker checker({.defaults = &defaults,
                           .feedUrl = QUrl(QStringLiteral("http://127.0.0.1:9/appcast.xml")),
                           .currentVersion = QStringLiteral(QUILLVOX_VERSION)});
    UpdateWindow updates(checker, [](const QUrl &) {});
    UpdateChecker::Result offer;
    offer.outcome = UpdateChecker::Result::Outcome::Available;
    offer.currentVersion = QStringLiteral(QUILLVOX_VERSION);
    offer.item =
        AppcastItem{QStringLiteral("0.2.0"), QString(), QUrl(QStringLiteral("https://example.test/q.deb")),
                    QUrl(QStringLiteral("https://example.test/notes")), QDateTime()};
    for (const auto &[name, palette] : {std::pair{"light", light}, std::pair{"dark", darkPalette()}}) {
        QGuiApplication::setPalette(palette);
        updates.showResult(offer);
        settle(300);
        const QString path =
            out.filePath(QStringLiteral("update-available-%1%2.png").arg(QLatin1String(name), suffix));
        written += updates.window()->grabWindow().save(path) ? 1 : 0;
    }
    QGuiApplication::setPalette(light);
    // Pixmaps are drawn at their own size, whatever the scale.
    if (suffix.isEmpty())
        written += shootTrayIcons(out);

    QTextStream(stdout) << written << " screenshots in " << out.absolutePath() << Qt::endl;
    return written > 0 ? 0 : 1;
}
