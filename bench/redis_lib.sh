# Sourced by the scripts that measure beside Redis: installs redis-server
# and redis-tools from Debian when they are missing (as root only).

ensure_redis() {
  command -v redis-server >/dev/null && command -v redis-benchmark >/dev/null && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "redis-server and redis-tools are missing; install them as root (apt-get install redis-server redis-tools)" >&2
    exit 2
  fi
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends redis-server redis-tools >/dev/null
}
