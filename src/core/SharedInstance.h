// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QPointer>

// The process-wide instance of a manager: built and installed once at start (on the GUI thread) by the
// application, and forgotten by itself when the instance is destroyed.
template<typename T> class SharedInstance
{
public:
    static T &get()
    {
        Q_ASSERT_X(s_instance, "SharedInstance::get",
                   "the application installs the shared instance at start");
        return *s_instance;
    }
    static bool has() { return !s_instance.isNull(); }
    static void install(T *instance) { s_instance = instance; }

private:
    static inline QPointer<T> s_instance;
};
