# Part of scripts/demo, with its functions: a device and a panel at two sites, each with a broker.
# shellcheck shell=bash disable=SC2034,SC2154 # variables of scripts/demo

# start_site NAME [PORT]: a broker; sets `port`.
start_site() {
    mkdir -p "$work/site-$1"
    start_broker "$work/site-$1" "${@:2}" || fail "the broker $1 did not start"
    port=$broker_port
    pid[$1]=$broker_pid
    output[$1]=$broker_output
}

# A way for a bridge that can be cut: forwards from one port, 0 for any, to another one.
relay='
import asyncio, sys
async def forward(source, sink):
    while data := await source.read(65536):
        sink.write(data)
    sink.close()
async def serve(source, sink):
    far_source, far_sink = await asyncio.open_connection("127.0.0.1", int(sys.argv[2]))
    await asyncio.gather(forward(source, far_sink), forward(far_source, sink))
async def main():
    server = await asyncio.start_server(serve, "127.0.0.1", int(sys.argv[1]))
    print(server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()
asyncio.run(main())'

start_relay() {
    start relay python3 -c "$relay" "$1" "$device_port"
    expect relay '^([0-9]+)$'
    relay_port=${BASH_REMATCH[1]}
}

# start_subscribe PORT
start_subscribe() {
    start subscribe build/demo/examples/subscribe 127.0.0.1 "$1" <"$work/commands"
    expect subscribe '^connected$'
}

# one_after_another: publishes at the first address and subscribes at the second; all lines must arrive.
one_after_another() {
    start_subscribe "${2##*:}"
    sleep 1 # the other node learns of the subscription
    start publish build/demo/examples/publish 127.0.0.1 "${1##*:}" <"$work/lines"
    expect publish '^connected$'
    publish 1 20 published
    echo >&"$lines"
    finish publish
    expect_received 1 20
    echo >&"$commands"
    finish subscribe
}

# bridge_to PORT [LINE...]: what the second broker has in its configuration.
bridge_to() {
    broker_lines=("connection site" "address 127.0.0.1:$1" "topic # both 1" "notifications false"
        "restart_timeout 1 2" "${@:2}")
}

start_site first
device_port=$port
bridge_to "$device_port"
start_site second
panel_port=$port
explain "PART 1. The broker at port $device_port is the device's, the one at port $panel_port the panel's. A" \
    "bridge joins them, with QoS 1 in both directions:"
start device build/demo/examples/device 127.0.0.1 "$device_port" <"$work/commands"
expect device '^the clock was started at ([0-9.]+)$'
clock_start=${BASH_REMATCH[1]}
expect device '^connected$'
start panel build/demo/examples/panel 127.0.0.1 "$panel_port"
expect panel '^the plant: connected$'
expect panel '^the links are those of tank, pump and valve$'
expect panel '^bound; by the clock of the plant it is [0-9]+ s$'
check_clock
explain "Retained values, requests, the binding and the time pass the bridge. Requests follow:"
expect_all panel '^draw 60 litres: done, 40 litres left$' \
    '^draw 60 litres: refused with code 17, not enough, 40 litres left$' \
    '^draw 5 litres from nobody: no answer in time$' '^the request has ended: called off$'

explain "The panel's broker is killed and started again, without any retained value. The bridge reads them" \
    "again from the device's broker, which the device has not lost:"
expect panel '^now restart the broker$'
stop second
start_site second "$panel_port"
expect_all panel '^connection lost$' '^connected$' '^the plant: connected$' \
    '^draw 10 litres: done, 30 litres left$' '^not bound any more$'

explain "The device is killed. Its broker publishes the will, which passes the bridge. What the panel erases" \
    "at its broker is erased at the device's, too:"
expect panel '^now stop the device$'
stop device
expect panel '^the plant: connection lost$'
expect panel '^all is cleaned$'
finish panel
explain "Observed at two bridged brokers: retained values, requests, binding, time, will and cleaning hold."

explain "PART 2. The bridge is cut. The device is killed meanwhile, and the bridge comes back:"
stop second
start_relay 0
bridge_to "$relay_port" "bridge_outgoing_retain false"
start_site second "$panel_port"
start device build/demo/examples/device 127.0.0.1 "$device_port" <"$work/commands"
start_subscribe "$panel_port"
expect subscribe '"state": 2'
stop relay
stop device
start_relay "$relay_port"
expect subscribe '"state": 3'
stop subscribe
start_subscribe "$device_port"
expect subscribe '"state": 3'
stop subscribe
explain "Observed: the panel's broker gets the will as soon as the bridge is back, and both brokers keep it."

explain "PART 3. A cluster: two nodes of aedes that share Redis; one program subscribes at one, another one" \
    "publishes at the other:"
mkfifo "$work/nothing"
exec {nothing}<>"$work/nothing" # never ends; the cluster ends when its script is killed
start cluster scripts/brokers --serve "two aedes, Redis" <"$work/nothing"
next_line cluster || fail "no cluster"
if [[ $line =~ ^(127\.0\.0\.1:[0-9]+)\ (127\.0\.0\.1:[0-9]+)$ ]]; then
    one_after_another "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}"
    explain "Observed at the cluster: all values arrive at the other node, in order, each once."
else
    explain "No cluster here: $line"
fi
explain "The demo passed in $((SECONDS - started)) s. docs/guides/several-brokers.md has the measurements."
