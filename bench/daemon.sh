# Sourced by the bench scripts: a free loopback port, and the daemon with this machine's
# configuration on given ports, run from a build directory with its own load tool.

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

# start_daemon BUILD DIR PORT AGENT_PORT [ARGS...]: writes DIR's configuration, starts the
# daemon on it (output to DIR/daemon.out), sets daemon_pid and waits for its pid file.
start_daemon() {
    local build=$1 dir=$2 port=$3 agent=$4
    shift 4
    bash "$root/scripts/gen-config.sh" "$dir" >/dev/null 2>&1
    sed -i -e "s|^corvane.config.hostspread.port=.*|corvane.config.hostspread.port=$port|" \
        -e "s|^corvane.config.hostspread.agentport=.*|corvane.config.hostspread.agentport=$agent|" \
        -e "s|^corvane.config.hostspread.probepath=.*|corvane.config.hostspread.probepath=$build/hostgauge-vmstat -S|" \
        "$dir/hostspread.properties"
    "$build/hostgauge" "$dir" "$@" >"$dir/daemon.out" 2>&1 &
    daemon_pid=$!
    for _ in $(seq 1 300); do [ -f "$dir/hostgauge.pid" ] && return 0; sleep 0.1; done
    echo "the daemon did not start (see $dir/daemon.out)" >&2
    return 1
}
