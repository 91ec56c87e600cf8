#!/usr/bin/env bash
# A private sound server on a null sink, for the tests and scripts that need
# sound without a sound card: PulseAudio, or PipeWire with pipewire-pulse and
# wireplumber. ALSA's "pulse" PCM and mixer reach either through PULSE_SERVER;
# on PipeWire, DIR/alsa.conf (append it to ALSA_CONFIG_PATH) also defines
# ALSA's "pipewire" PCM and mixer for it.
#
# As a command (the tests' ctest fixtures run it):
#   scripts/lib/soundserver.sh [--server pulseaudio|pipewire] start DIR
#                                    start in DIR, detached; DIR/env holds its variables
#   scripts/lib/soundserver.sh stop DIR    stop it cleanly
#   scripts/lib/soundserver.sh kill DIR    kill it as a crash would: the sockets stay behind
# Sourced, start_private_sound_server DIR SINK RATE [pulseaudio|pipewire]
# starts one for the calling script, which stops the processes listed in
# sound_server_pids.

# shellcheck source=scripts/lib/packages.sh
source "$(dirname "${BASH_SOURCE[0]}")/packages.sh"

sound_server_pids=()

# start_private_sound_server DIR SINK RATE [SERVER]
start_private_sound_server() {
    local dir=$1 sink=$2 rate=$3 server=${4:-pulseaudio}
    mkdir -p -m 700 "$dir/run" "$dir/home"
    # Clients find the server by these paths whatever their working directory.
    dir=$(cd "$dir" && pwd)
    export HOME=$dir/home XDG_RUNTIME_DIR=$dir/run
    case $server in
    pulseaudio) start_private_pulseaudio "$dir" "$sink" "$rate" ;;
    pipewire) start_private_pipewire "$dir" "$sink" "$rate" ;;
    *) echo "unknown sound server '$server' (pulseaudio or pipewire)" >&2; return 1 ;;
    esac
}

start_private_pulseaudio() {
    local dir=$1 sink=$2 rate=$3
    cat >"$dir/pa.pa" <<EOF_PA
load-module module-null-sink sink_name=$sink rate=$rate channels=2 format=s16le
load-module module-native-protocol-unix auth-anonymous=1 socket=$dir/run/native
set-default-sink $sink
set-default-source $sink.monitor
EOF_PA
    export PULSE_SERVER=unix:$dir/run/native
    rm -f "$dir/run/native"
    # Detached and with no descriptor of the caller's, so that a ctest fixture
    # returns while the server lives on.
    setsid pulseaudio -n -F "$dir/pa.pa" --daemonize=no --exit-idle-time=-1 --system=false \
        --use-pid-file=no --log-target=file:"$dir/pa.log" </dev/null >/dev/null 2>"$dir/server.stderr" &
    sound_server_pids+=($!)
    sound_server_wait "the sound server to answer" pactl info || return 1
    # An idle null sink renders in 2 s blocks, which would stall the first
    # stream; a permanent low-latency recorder keeps it rendering in small ones.
    setsid parec --raw --latency-msec=10 -d "$sink.monitor" </dev/null >/dev/null 2>&1 &
    sound_server_pids+=($!)
    sound_server_wait "the null sink to run with low latency" sound_server_latency_is_low
}

start_private_pipewire() {
    local dir=$1 sink=$2 rate=$3 program
    # Without systemd and D-Bus wireplumber exits at start unless the parts
    # that need them are off.
    mkdir -p "$HOME/.config/wireplumber/bluetooth.lua.d" "$HOME/.config/wireplumber/main.lua.d"
    echo 'bluez_monitor.enabled = false' >"$HOME/.config/wireplumber/bluetooth.lua.d/51-no-bluez.lua"
    cat >"$HOME/.config/wireplumber/main.lua.d/51-no-dbus.lua" <<'EOF_WP'
alsa_monitor.properties["alsa.reserve"] = false
default_access.properties["enable-flatpak-portal"] = false
EOF_WP
    pipewire_alsa_conf "$QUIL_PIPEWIRE_ALSA_DIR" "$dir/alsa.conf" "$dir/run/pipewire-0" || return 1
    export PULSE_SERVER=unix:$dir/run/pulse/native PIPEWIRE_REMOTE=$dir/run/pipewire-0
    # A cross build's tests name the target's modules, which are not the server's.
    unset PIPEWIRE_RUNTIME_DIR PIPEWIRE_MODULE_DIR
    rm -rf "$dir/run/pipewire-0" "$dir/run/pipewire-0.lock" "$dir/run/pulse"
    : >"$dir/server.stderr"
    for program in pipewire wireplumber pipewire-pulse; do
        setsid "$program" </dev/null >/dev/null 2>>"$dir/server.stderr" &
        sound_server_pids+=($!)
        [ "$program" = pipewire ] && { sound_server_wait "pipewire's socket" test -S "$dir/run/pipewire-0" || return 1; }
    done
    sound_server_wait "the sound server to answer" pactl info || return 1
    pactl load-module module-null-sink sink_name="$sink" rate="$rate" channels=2 >/dev/null || return 1
    # The defaults live in wireplumber's metadata, which may not exist yet.
    sound_server_wait "the null sink to become the default" sound_server_set_defaults "$sink"
}

sound_server_set_defaults() {
    local info
    pactl set-default-sink "$1" && pactl set-default-source "$1.monitor" && info=$(pactl info) &&
        grep -qx "Default Sink: $1" <<<"$info" && grep -qx "Default Source: $1.monitor" <<<"$info"
}

# pipewire_alsa_conf DIR CONF SOCKET: ALSA's pipewire PCM and ctl plugins,
# which set-up unpacked into DIR (fetch_pipewire_alsa in packages.sh), named
# in CONF and reaching the server at SOCKET. A cross build's tests load the
# target's, which QUIL_PIPEWIRE_ALSA_DIR and QUIL_PIPEWIRE_ALSA_MULTIARCH name
# (scripts/lib/sysroot.sh unpacked them).
pipewire_alsa_conf() {
    local dest=$1 conf=$2 socket=$3 libdir
    libdir=usr/lib/${QUIL_PIPEWIRE_ALSA_MULTIARCH:-$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)}/alsa-lib
    if [ ! -f "$dest/$libdir/libasound_module_pcm_pipewire.so" ]; then
        echo "ALSA's pipewire plugins are not in $dest: the set-up of scripts/test.sh (as root) unpacks them" >&2
        return 1
    fi
    cat >"$conf" <<EOF_CONF
pcm_type.pipewire { lib "$dest/$libdir/libasound_module_pcm_pipewire.so" }
ctl_type.pipewire { lib "$dest/$libdir/libasound_module_ctl_pipewire.so" }
<$dest/usr/share/alsa/alsa.conf.d/50-pipewire.conf>
defaults.pipewire.server "$socket"
EOF_CONF
}

sound_server_latency_is_low() {
    pactl list sinks | awk '/Latency:/ { found = 1; if ($2 >= 50000) high = 1 } END { exit !found || high }'
}

# sound_server_wait WHAT COMMAND...: up to 15 s.
sound_server_wait() {
    local what=$1 tries
    shift
    for ((tries = 300; tries > 0; tries--)); do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    echo "gave up waiting for $what" >&2
    return 1
}

# sound_server_signal DIR SIGNAL: to the processes a start in DIR left.
# A server process that has exited but was not reaped (where PID 1 does not
# reap orphans) still answers kill -0: count it as gone.
sound_server_alive() {
    [ -e "/proc/$1" ] && ! grep -qs '^State:[[:space:]]*Z' "/proc/$1/status"
}

sound_server_signal() {
    local dir=$1 signal=$2 pid
    [ -f "$dir/pids" ] || return 0
    for pid in $(cat "$dir/pids"); do
        kill "-$signal" "$pid" 2>/dev/null || true
    done
    for pid in $(cat "$dir/pids"); do
        for ((tries = 100; tries > 0; tries--)); do
            sound_server_alive "$pid" || break
            sleep 0.05
        done
    done
    rm -f "$dir/pids"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    set -euo pipefail
    usage="usage: $0 [--server pulseaudio|pipewire] start|stop|kill DIR"
    server=pulseaudio
    if [ "${1:-}" = --server ]; then
        server=${2:-}
        shift 2 || true
    fi
    [ $# -eq 2 ] || { echo "$usage" >&2; exit 2; }
    dir=$2
    case $1 in
    start)
        mkdir -p "$dir"
        sound_server_signal "$dir" KILL
        if ! start_private_sound_server "$dir" testsink 48000 "$server"; then
            tail -n 20 "$dir/server.stderr" >&2
            kill -KILL "${sound_server_pids[@]}" 2>/dev/null
            exit 1
        fi
        echo "${sound_server_pids[@]}" >"$dir/pids"
        printf 'PULSE_SERVER=%s\nXDG_RUNTIME_DIR=%s\nHOME=%s\n' "$PULSE_SERVER" "$XDG_RUNTIME_DIR" "$HOME" >"$dir/env"
        ;;
    stop) sound_server_signal "$dir" TERM ;;
    kill) sound_server_signal "$dir" KILL ;;
    *) echo "$usage" >&2; exit 2 ;;
    esac
fi
