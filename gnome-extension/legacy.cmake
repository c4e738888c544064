# SPDX-License-Identifier: GPL-3.0-or-later
# cmake -DINPUT=<module.js> -DOUTPUT=<file> -P legacy.cmake
# Rewrites one of the extension's ES modules for GNOME Shell 43 and 44, which load extensions through the
# imports object: imports become lookups there, and what a module exports becomes a `var` (the only
# top-level bindings that object exposes).
file(READ ${INPUT} text)
string(REGEX REPLACE "import ([A-Za-z]+) from 'gi://([A-Za-z]+)';" "const \\1 = imports.gi.\\2;" text "${text}")
string(REGEX REPLACE "import \\* as ([A-Za-z]+) from 'resource:///org/gnome/shell/ui/([A-Za-z]+)\\.js';"
       "const \\1 = imports.ui.\\2;" text "${text}")
string(REGEX REPLACE "\nexport class ([A-Za-z]+)" "\nvar \\1 = class \\1" text "${text}")
string(REGEX REPLACE "\nexport const " "\nvar " text "${text}")
string(REGEX REPLACE "\nexport function " "\nfunction " text "${text}")
if(text MATCHES "(^|\n)(import|export) ")
    message(FATAL_ERROR "${INPUT}: a module statement legacy.cmake does not rewrite")
endif()
file(WRITE ${OUTPUT} "${text}")
