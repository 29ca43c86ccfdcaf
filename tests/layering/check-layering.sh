#!/usr/bin/env bash
# Checks the module layering of a source tree: each module includes and links only the modules
# below it, the kit, the engine and the command line use no Qt, and only the user interface
# (app/ui) uses Qt Widgets. Prints every violation as "file:line: what" and exits 1 if there is
# any. Modules whose folder does not exist are skipped, so the check holds as layers are added.
#
# usage: check-layering.sh ROOT
set -euo pipefail
root=${1:?usage: check-layering.sh ROOT}
root=${root%/}

modules=(base dsp timepitch core io engine editor document ui cli)
declare -A folder=(
    [base]=kit/base [dsp]=kit/dsp [timepitch]=kit/timepitch [core]=kit/core [io]=kit/io
    [engine]=engine [editor]=app/editor [document]=app/document [ui]=app/ui [cli]=cli
)
kit="base dsp timepitch core io"
# The modules each one may use besides itself.
declare -A allowed=(
    [base]="" [dsp]="base" [timepitch]="base" [core]="base dsp timepitch" [io]="base dsp"
    [engine]="$kit" [editor]="$kit engine" [document]="$kit engine editor"
    [ui]="$kit engine editor document" [cli]="$kit engine"
)
# How much of Qt each module may use: none, gui (Core, Gui and the like, not Widgets), all.
declare -A qt=(
    [base]=none [dsp]=none [timepitch]=none [core]=none [io]=none [engine]=none
    [editor]=gui [document]=gui [ui]=all [cli]=none
)

failures=0
violation() {
    echo "$1"
    failures=$((failures + 1))
}

# Qt's installed headers tell which class headers (<QLabel>, <QWidget>) belong to Widgets.
qt_headers=$( (pkg-config --variable=includedir Qt6Core || qtpaths6 --query QT_INSTALL_HEADERS) 2>/dev/null || true)
widget_modules="QtWidgets QtOpenGLWidgets QtSvgWidgets QtPrintSupport"
is_widgets_header() { # header name as written, without the brackets
    local name=$1 top=${1%%/*} m
    for m in $widget_modules; do
        [[ $top == "$m" ]] && return 0
        [[ -n $qt_headers && $name != */* && -e $qt_headers/$m/$name ]] && return 0
    done
    # Without Qt's headers at hand, the commonest widget classes still count.
    [[ $name =~ ^Q(Widget|Application|MainWindow|Dialog|Label|PushButton|Menu|MenuBar|ToolBar|Layout|[HV]BoxLayout|FileDialog|MessageBox|ScrollArea|Splitter|AbstractButton|Frame)$ ]]
}
is_qt_header() { [[ $1 =~ ^Qt[A-Za-z0-9]*(/|$) || $1 =~ ^Q[A-Z][A-Za-z0-9]*$ ]]; }

# Sets `used` to the module an include of ours names, from its first folder
# ("core/AudioContent.h", "kit/core/AudioContent.h", "app/editor/EditorModel.h"); empty otherwise.
module_of_include() {
    local path=${1#kit/} m
    path=${path#app/}
    used=
    [[ $path == */* ]] || return 0
    for m in "${modules[@]}"; do
        [[ ${path%%/*} == "$m" ]] && used=$m && return 0
    done
    return 0
}

may_use() { # module used
    [[ $1 == "$2" || " ${allowed[$1]} " == *" $2 "* ]]
}

# --- includes ---
for m in "${modules[@]}"; do
    dir=$root/${folder[$m]}
    [[ -d $dir ]] || continue
    while IFS= read -r hit; do
        [[ -n $hit ]] || continue
        [[ $hit =~ ^([^:]*):([0-9]+):[[:space:]]*#[[:space:]]*include[[:space:]]*[\<\"]([^\>\"]*) ]] || continue
        location=${BASH_REMATCH[1]#"$root"/}:${BASH_REMATCH[2]}
        header=${BASH_REMATCH[3]}
        if [[ $header == *../* ]]; then
            violation "$location: includes \"$header\": write includes from the module root"
            continue
        fi
        if is_qt_header "$header"; then
            if [[ ${qt[$m]} == none ]]; then
                violation "$location: includes <$header>: ${folder[$m]} uses no Qt"
            elif [[ ${qt[$m]} == gui ]] && is_widgets_header "$header"; then
                violation "$location: includes <$header>: only app/ui uses Qt Widgets"
            fi
            continue
        fi
        module_of_include "$header"
        if [[ -n $used ]] && ! may_use "$m" "$used"; then
            violation "$location: includes \"$header\": $m may use only: ${allowed[$m]:-nothing of ours}"
        fi
    done < <(grep -rnE --include='*.h' --include='*.hpp' --include='*.cpp' --include='*.cc' \
        --include='*.inl' '^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"]' "$dir" || true)
done

# --- CMake: which module each target belongs to, then each module's link lines ---
# Each CMake file without comments, one line per command (commands may span lines).
declare -A cmake_module=() cmake_text=()
for m in "${modules[@]}"; do
    dir=$root/${folder[$m]}
    [[ -d $dir ]] || continue
    while IFS= read -r file; do
        cmake_module[$file]=$m
        cmake_text[$file]=$(sed -E 's/#.*$//' "$file" | tr '\n' ' ' | sed -E 's/\)/)\n/g')
    done < <(find "$dir" -type f \( -name CMakeLists.txt -o -name '*.cmake' \))
done

declare -A target_module=()
defines='^[[:space:]]*add_(library|executable)[[:space:]]*\([[:space:]]*([^[:space:])]+)'
for file in "${!cmake_module[@]}"; do
    while IFS= read -r command; do
        if [[ $command =~ $defines ]]; then
            target_module[${BASH_REMATCH[2]}]=${cmake_module[$file]}
        fi
    done <<<"${cmake_text[$file]}"
done

for file in "${!cmake_module[@]}"; do
    m=${cmake_module[$file]}
    rel=${file#"$root"/}
    while IFS= read -r command; do
        if [[ $command =~ find_package[[:space:]]*\([[:space:]]*Qt ]]; then
            if [[ ${qt[$m]} == none ]]; then
                violation "$rel: finds Qt: ${folder[$m]} uses no Qt"
            elif [[ ${qt[$m]} == gui && $command =~ Widgets|PrintSupport ]]; then
                violation "$rel: finds Qt Widgets: only app/ui uses Qt Widgets"
            fi
        fi
        [[ $command =~ target_link_libraries[[:space:]]*\((.*)\) ]] || continue
        read -ra words <<<"${BASH_REMATCH[1]}"
        for word in "${words[@]:1}"; do
            if [[ $word =~ ^Qt[0-9]*::(.*)$ ]]; then
                component=${BASH_REMATCH[1]}
                if [[ ${qt[$m]} == none ]]; then
                    violation "$rel: links $word: ${folder[$m]} uses no Qt"
                elif [[ ${qt[$m]} == gui && $component =~ Widgets|PrintSupport ]]; then
                    violation "$rel: links $word: only app/ui uses Qt Widgets"
                fi
                continue
            fi
            used=${target_module[$word]:-}
            if [[ -n $used ]] && ! may_use "$m" "$used"; then
                violation "$rel: links $word: $m may use only: ${allowed[$m]:-nothing of ours}"
            fi
        done
    done <<<"${cmake_text[$file]}"
done

if ((failures > 0)); then
    echo "layering: $failures violation(s)"
    exit 1
fi
echo "layering: ok"
