#!/usr/bin/env bash
# Runs check-layering.sh on a small made-up tree: the clean tree must pass, and each violation in
# the table below, added alone to a copy of it, must fail and be reported at its file.
set -euo pipefail
check=$(dirname "$0")/check-layering.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

clean=$work/clean
add() { # path line: appends a line to a file of the tree in $tree
    mkdir -p "$(dirname "$tree/$1")"
    printf '%s\n' "$2" >>"$tree/$1"
}
tree=$clean
add kit/base/CMakeLists.txt 'add_library(harlune_base STATIC A.cpp)'
add kit/base/A.h '#include <vector>'
add kit/dsp/CMakeLists.txt 'add_library(harlune_dsp STATIC D.cpp)'
add kit/dsp/CMakeLists.txt 'target_link_libraries(harlune_dsp PUBLIC harlune_base # not harlune_core'
add kit/dsp/CMakeLists.txt '    PRIVATE harlune_warnings)'
add kit/dsp/D.h '#include "base/A.h"'
add kit/timepitch/CMakeLists.txt 'add_library(harlune_timepitch STATIC T.cpp)'
add kit/timepitch/T.h '#include "base/A.h"'
add kit/core/CMakeLists.txt 'add_library(harlune_core STATIC C.cpp)'
add kit/core/CMakeLists.txt 'target_link_libraries(harlune_core PUBLIC harlune_base harlune_dsp harlune_timepitch)'
add kit/core/C.h '#include "dsp/D.h"'
add kit/core/C.cpp '#include "timepitch/T.h"'
add kit/io/CMakeLists.txt 'add_library(harlune_io STATIC I.cpp)'
add kit/io/I.cpp '#include "dsp/D.h"'
add kit/io/I.cpp '#include <sndfile.h>'
add engine/CMakeLists.txt 'add_library(harlune_engine STATIC E.cpp)'
add engine/CMakeLists.txt 'target_link_libraries(harlune_engine PUBLIC harlune_core)'
add engine/devices/CMakeLists.txt 'add_library(harlune_engine_devices STATIC P.cpp)'
add engine/devices/P.cpp '#include "engine/E.h"'
add engine/devices/P.cpp '#include "io/I.h"'
add app/editor/CMakeLists.txt 'find_package(Qt6 REQUIRED COMPONENTS Core Gui)'
add app/editor/CMakeLists.txt 'add_library(harlune_editor STATIC M.cpp)'
add app/editor/CMakeLists.txt 'target_link_libraries(harlune_editor PUBLIC harlune_engine Qt6::Core Qt6::Gui)'
add app/editor/M.h '#include <QObject>'
add app/editor/M.h '#include <QtGui/QAction>'
add app/editor/M.h '#include "core/C.h"'
add app/document/CMakeLists.txt 'add_library(harlune_document STATIC Doc.cpp)'
add app/document/CMakeLists.txt 'target_link_libraries(harlune_document PUBLIC harlune_editor)'
add app/document/Doc.h '#include "editor/M.h"'
add app/ui/CMakeLists.txt 'find_package(Qt6 REQUIRED COMPONENTS Widgets)'
add app/ui/CMakeLists.txt 'add_executable(harlune WindowMain.cpp)'
add app/ui/CMakeLists.txt 'target_link_libraries(harlune PRIVATE harlune_document Qt6::Widgets)'
add app/ui/views/W.h '#include <QWidget>'
add app/ui/views/W.h '#include <QtWidgets/QLabel>'
add app/ui/views/W.h '#include "document/Doc.h"'
add cli/CMakeLists.txt 'add_executable(harlune-cli Main.cpp)'
add cli/CMakeLists.txt 'target_link_libraries(harlune-cli PRIVATE harlune_io harlune_engine_devices)'
add cli/Main.cpp '#include "engine/E.h"'
add cli/Main.cpp '#include "Local.h"'

failed=0
if ! out=$(bash "$check" "$clean"); then
    echo "FAIL: the clean tree was refused:"
    echo "$out"
    failed=1
fi

# file | line added to it (\n starts a new line)
while IFS='|' read -r file line; do
    [[ -n $file ]] || continue
    tree=$work/case
    rm -rf "$tree"
    cp -r "$clean" "$tree"
    add "$file" "$(printf '%b' "$line")"
    if out=$(bash "$check" "$tree"); then
        echo "FAIL: not caught: $file: $line"
        failed=1
    elif ! grep -q "^$file" <<<"$out"; then
        echo "FAIL: caught, but not reported at $file: $line"
        echo "$out"
        failed=1
    fi
done <<'EOF'
kit/base/A.h|#include "dsp/D.h"
kit/dsp/D.cpp|#include "core/C.h"
kit/dsp/D.cpp|  #  include <core/C.h>
kit/timepitch/T.cpp|#include "dsp/D.h"
kit/core/C.cpp|#include "io/I.h"
kit/core/C.cpp|#include "engine/E.h"
kit/io/I.cpp|#include "core/C.h"
kit/io/I.cpp|#include "../core/C.h"
kit/io/I.cpp|#include "kit/core/C.h"
kit/core/C.h|#include <QString>
kit/base/A.h|#include <QtCore/QObject>
engine/E.h|#include <QtCore>
engine/devices/P.cpp|#include "editor/M.h"
app/editor/M.cpp|#include <QWidget>
app/editor/M.cpp|#include <QtWidgets/QPushButton>
app/editor/M.cpp|#include "document/Doc.h"
app/document/Doc.cpp|#include "ui/views/W.h"
app/document/Doc.cpp|#include <QMainWindow>
cli/Main.cpp|#include "editor/M.h"
cli/Main.cpp|#include "app/document/Doc.h"
cli/Main.cpp|#include <QCoreApplication>
kit/dsp/CMakeLists.txt|target_link_libraries(harlune_dsp PRIVATE harlune_core)
kit/io/CMakeLists.txt|target_link_libraries(harlune_io PUBLIC harlune_base\n    harlune_timepitch)
kit/core/CMakeLists.txt|find_package(Qt6 REQUIRED COMPONENTS Core)
engine/CMakeLists.txt|target_link_libraries(harlune_engine PRIVATE Qt6::Core)
engine/devices/CMakeLists.txt|target_link_libraries(harlune_engine_devices PUBLIC harlune_editor)
app/editor/CMakeLists.txt|target_link_libraries(harlune_editor PRIVATE Qt6::Widgets)
app/editor/CMakeLists.txt|find_package(Qt6 REQUIRED COMPONENTS Widgets)
app/document/CMakeLists.txt|target_link_libraries(harlune_document PUBLIC harlune)
cli/CMakeLists.txt|target_link_libraries(harlune-cli PRIVATE harlune_editor)
cli/CMakeLists.txt|target_link_libraries(harlune-cli PRIVATE Qt6::Core)
EOF

if ((failed)); then
    exit 1
fi
echo "layering check: every violation caught, the clean tree passes"
