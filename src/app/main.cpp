// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/CommandLine.h"

int main(int argc, char *argv[])
{
    return runQuillvox(argc, argv);
}
