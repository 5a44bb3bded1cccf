# Sourced by scripts that need a broker of their own. They call stop_broker at their end.

# Debian keeps the broker where only root looks.
PATH=$PATH:/usr/sbin
broker_pid=

# start_broker FOLDER: one on a free port of 127.0.0.1, which is then in `broker_port`.
start_broker() {
    local folder=$1 try
    for try in {1..20}; do
        broker_port=$((20000 + RANDOM % 12000))
        if try_broker "$folder"; then
            return
        fi
        stop_broker
    done
    echo "no broker would start: $try ports tried" >&2
    return 1
}

try_broker() {
    local line output
    printf '%s\n' "listener $broker_port 127.0.0.1" "allow_anonymous true" "persistence false" \
        "user $(id -un)" "log_dest stderr" "log_timestamp false" "log_type error" \
        "log_type information" >"$1/mosquitto.conf"
    # The test of a fixed port would be a race; the broker says itself whether it got it.
    exec {output}< <(exec mosquitto -c "$1/mosquitto.conf" 2>&1)
    broker_pid=$!
    while IFS= read -r -t 30 -u "$output" line; do
        if [[ $line == *" running" ]]; then
            return
        fi
    done
    return 1
}

stop_broker() {
    [[ -n $broker_pid ]] || return 0
    kill -KILL "$broker_pid" 2>/dev/null || true
    wait "$broker_pid" 2>/dev/null || true
    broker_pid=
}
