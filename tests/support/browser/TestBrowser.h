// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcessEnvironment>
#include <QString>

// Makes tests/support/browser/test-browser the default http and https browser in the XDG folders of
// `env` (XDG_CONFIG_HOME and XDG_DATA_HOME, which must be set; their mimeapps.list is replaced), and the
// app's desktop entry, running this tree's quillvox, the handler of quillvox:// URLs there. The browser
// follows redirects and hands a quillvox:// one to xdg-open, so a sign-in against the dev server's
// --auto-consent reaches the running app the way a desktop delivers it. Adds QUILLVOX_TEST_BROWSER_LOG
// to `env` and returns that file's path (emptied now; each opened URL is appended to it); empty when the
// folders cannot be written.
QString installTestBrowser(QProcessEnvironment &env);
