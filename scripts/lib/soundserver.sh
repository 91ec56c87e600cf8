# A private PulseAudio server on a null sink, for the scripts that need sound
# without a sound card. ALSA's "pulse" PCM and mixer reach it through
# PULSE_SERVER. The caller stops the processes listed in sound_server_pids.

sound_server_pids=()

# start_private_sound_server DIR SINK RATE
start_private_sound_server() {
    local dir=$1 sink=$2 rate=$3
    mkdir -m 700 "$dir/run" "$dir/home"
    cat >"$dir/pa.pa" <<EOF_PA
load-module module-null-sink sink_name=$sink rate=$rate channels=2 format=s16le
load-module module-native-protocol-unix auth-anonymous=1 socket=$dir/run/native
set-default-sink $sink
set-default-source $sink.monitor
EOF_PA
    export HOME=$dir/home XDG_RUNTIME_DIR=$dir/run PULSE_SERVER=unix:$dir/run/native
    pulseaudio -n -F "$dir/pa.pa" --daemonize=no --exit-idle-time=-1 --system=false \
        --use-pid-file=no --log-target=file:"$dir/pa.log" 2>"$dir/pa.stderr" &
    sound_server_pids+=($!)
    sound_server_wait "the sound server to answer" pactl info || return 1
    # An idle null sink renders in 2 s blocks, which would stall the first
    # stream; a permanent low-latency recorder keeps it rendering in small ones.
    parec --raw --latency-msec=10 -d "$sink.monitor" >/dev/null 2>&1 &
    sound_server_pids+=($!)
    sound_server_wait "the null sink to run with low latency" sound_server_latency_is_low
}

sound_server_latency_is_low() {
    pactl list sinks | awk '/Latency:/ { found = 1; if ($2 >= 50000) exit 1 } END { exit !found }'
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
