// SPDX-License-Identifier: Apache-2.0
#include "upgrade/install.h"

// Two jobs: "untar_web [BRIX]" unpacks the web pages that came with the firmware; a path installs
// that package, whose own install.sh leaves its result in /tmp/up_cloud.
//
// The daemon hands over its lock as descriptor 8, by which the script knows that it is not run by
// hand, and the verified package as descriptor 9, whatever has its name by then. install.sh
// inherits the lock, so that nobody empties the folder under it, but not the package, whose room a
// program that it starts would take for good. The second job is in braces: a shell reads them to
// the end before it begins, and the daemon that starts after this one writes the script anew.
const char INSTALL_SCRIPT_BODY[] = R"script(if [ "$1" = "untar_web" ]; then
    # Everybody may write in /tmp. A folder that is ours by now stays so.
    plain() {
        for each; do
            [ ! -L "$each" ] || return 1
        done
    }
    for path in /tmp/cloud_web.tar /tmp/cloud_web.tar.bz2 /tmp/web; do
        plain "$path" || rm -f "$path"
    done
    if [ -e /var/bin/cloud_web.tar.gz ] || [ -e /var/bin/cloud_web.tar.bz2 ]; then
        mkdir /tmp/web 2>/dev/null
    fi
    if [ ! -d /tmp/web ] || [ ! -O /tmp/web ] || [ -L /tmp/web ]; then
        exit
    fi
    plain /tmp/web/js || rm -f /tmp/web/js
    if [ -e /var/bin/cloud_web.tar.gz ]; then
        tar zxf /var/bin/cloud_web.tar.gz -C /tmp 2>/dev/null
    elif [ -e /var/bin/cloud_web.tar.bz2 ]; then
        bunzip2 -c /var/bin/cloud_web.tar.bz2 | tar xf - -C /tmp
    fi
    for path in /tmp/web/index.htm /tmp/web/js/load_r.js; do
        if plain "${path%/*}" && { [ -L "$path" ] || [ ! -f "$path" ]; }; then
            rm -f "$path"
        fi
    done
    if [ -e /tmp/web/cloud/index.htm ] && [ "$2" != "BRIX" ] &&
        plain /tmp/web /tmp/web/cloud /tmp/web/cloud/index.htm; then
        count=$(grep -c 'login_web\.htm' /tmp/web/index.htm 2>/dev/null)
        if [ "${count:-0}" -lt 2 ]; then
            rm -f /tmp/web/index.htm
            cp /tmp/web/cloud/index.htm /tmp/web/index.htm
            for variant in vt6c kq20 brix9k; do
                if grep -q "static/web/$variant" /tmp/web/js/load_r.js 2>/dev/null &&
                    plain /tmp/web/js "/tmp/web/cloud/load_r.$variant.js"; then
                    rm -f /tmp/web/js/load_r.js
                    cp "/tmp/web/cloud/load_r.$variant.js" /tmp/web/js/load_r.js
                    break
                fi
            done
        fi
    fi
    exit
fi

if [ -z "$1" ]; then
    echo "miss param for run cloud_install.sh"
    exit
fi

{
    by_daemon=
    if [ /proc/self/fd/8 -ef /var/run/cloud_install.lock ]; then
        by_daemon=yes
    fi

    clear_folder() {
        rm -rf ./* ./.[!.]* ./..?*
    }
    unpack() {
        if [ "$by_daemon" ]; then
            tar zxf - <&9
        else
            tar zxf "$1"
        fi
    }

    mkdir -p /tmp/up_cloud/
    cd /tmp/up_cloud/ || exit 1
    clear_folder

    whole=yes
    if ! unpack "$1"; then
        whole=
        clear_folder
    fi

    if [ "$whole" ] && [ -e install.sh ]; then
        ./install.sh >/dev/null 2>&1 9<&-
    elif [ "$whole" ] && [ -d tmpCloudPkg ] && [ -e tmpCloudPkg/install.sh ]; then
        cd tmpCloudPkg || exit 1
        ./install.sh >/dev/null 2>&1 9<&-
        cd /tmp/up_cloud/ || exit 1
        rm -rf tmpCloudPkg
    else
        printf '*' >/tmp/up_cloud/up_stat
        echo "upcompress $1 fail" >/tmp/up_cloud/up_msg
    fi

    if [ -z "$by_daemon" ]; then
        rm -f "$1"
        exit
    fi
    if [ "$1" -ef /proc/self/fd/9 ]; then
        rm -f "$1"
    fi
    mv -f /var/run/cloud_install.job /var/run/cloud_install.done
    exit 0
})script";
