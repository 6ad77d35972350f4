#!/usr/bin/env bash
# Starts the Velmora relay in the foreground: nginx takes the studio's one stream and sends it on to
# up to four platforms (see relay.conf.template).
#
#   relay.sh DESTINATIONS_FILE
#
# The file holds keys, so keep it readable by you only (chmod 600). One entry a line, # for comments:
#   relay KEY                  the key the studio's "Otro RTMP" row sends; at least 12 characters
#   youtube KEY, facebook KEY, twitch KEY    a platform the studio knows, with its stream key
#   rtmp://HOST[:PORT]/APP/KEY or rtmps://…  any other platform: its whole address, key last
#
# Environment: RELAY_PORT (1935) where the studio connects; RELAY_LEG_PORT (19350) the first of the
# four loopback ports the RTMPS legs may take; RELAY_FOLDER (~/.velmora-relay) where the
# configuration and nginx's log are written; RELAY_CA_FILE (/etc/ssl/certs/ca-certificates.crt) the
# authorities RTMPS platforms are checked against.
#
# No key is ever printed: a complaint names the line, never what it holds.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
port=${RELAY_PORT:-1935}
leg_port=${RELAY_LEG_PORT:-19350}
folder=${RELAY_FOLDER:-$HOME/.velmora-relay}
trust=${RELAY_CA_FILE:-/etc/ssl/certs/ca-certificates.crt}

fail() {
  echo "relay: $*" >&2
  exit 1
}

[ $# -eq 1 ] || fail "usage: relay.sh DESTINATIONS_FILE"
[ -r "$1" ] || fail "cannot read $1"
nginx=$(PATH=$PATH:/usr/sbin command -v nginx) ||
  fail "nginx not found (Debian: apt-get install nginx-light libnginx-mod-rtmp libnginx-mod-stream)"

# Characters a key may hold: enough for every platform's keys, and nothing nginx would read as syntax.
key_pattern='^[A-Za-z0-9._~=&%+-]+$'
# scheme, host (a name, or an IPv6 address in brackets), optional port, application, key
address_pattern='^(rtmps?)://([A-Za-z0-9.-]+|\[[0-9A-Fa-f:.]+\])(:([0-9]+))?/(.+)/([^/]+)$'

relay_key=''
pushes=''
legs=''
count=0
line=0
while IFS=$' \t\r' read -r first second extra || [ -n "$first" ]; do
  line=$((line + 1))
  case $first in '' | '#'*) continue ;; esac
  [ -z "${extra:-}" ] || fail "line $line: one address, or a name and a key, a line"
  case ${first,,} in
    relay)
      if ! [[ ${second:-} =~ $key_pattern ]] || [ ${#second} -lt 12 ]; then
        fail "line $line: the relay key needs at least 12 letters, digits or . _ ~ = & % + -"
      fi
      relay_key=$second
      continue
      ;;
    youtube) address=rtmps://a.rtmps.youtube.com/live2/${second:-} ;;
    facebook) address=rtmps://live-api-s.facebook.com:443/rtmp/${second:-} ;;
    twitch) address=rtmp://live.twitch.tv/app/${second:-} ;;
    *)
      [ -z "${second:-}" ] || fail "line $line: unknown platform name (youtube, facebook, twitch or a whole address)"
      address=$first
      ;;
  esac
  [[ $address =~ $address_pattern ]] || fail "line $line: not an rtmp:// or rtmps:// address with an application and a key"
  scheme=${BASH_REMATCH[1]} host=${BASH_REMATCH[2]} remote_port=${BASH_REMATCH[4]}
  app=${BASH_REMATCH[5]} key=${BASH_REMATCH[6]}
  [[ $key =~ $key_pattern ]] || fail "line $line: the key holds a character a stream key cannot have"
  [[ ${app//\//} =~ $key_pattern ]] || fail "line $line: the application holds a character it cannot have"
  count=$((count + 1))
  [ $count -le 4 ] || fail "line $line: more than four platforms"
  if [ "$scheme" = rtmps ]; then
    remote=$host:${remote_port:-443}
    target=127.0.0.1:$((leg_port + count - 1))
    legs+="    server { listen $target; proxy_pass $remote; }"$'\n'
  else
    remote=$host:${remote_port:-1935}
    target=$remote
  fi
  pushes+="            push rtmp://$target app=$app playPath=$key name=@RELAY_KEY@ tcUrl=$scheme://$remote/$app;"$'\n'
done <"$1"

[ -n "$relay_key" ] || fail "no relay line: the studio needs a key to send under"
[ $count -gt 0 ] || fail "no platform to send to"
[ -z "$legs" ] || [ -r "$trust" ] || fail "cannot read the trusted authorities $trust (Debian: apt-get install ca-certificates)"

# Everything written from here on is for this user's eyes only.
umask 077
mkdir -p "$folder"
chmod 700 "$folder"
config=$(<"$here/relay.conf.template")
config=${config//@PUSHES@/"$pushes"}
config=${config//@LEGS@/"$legs"}
config=${config//@RELAY_KEY@/"$relay_key"}
config=${config//@PORT@/"$port"}
config=${config//@FOLDER@/"$folder"}
config=${config//@TRUST@/"$trust"}
printf '%s\n' "$config" >"$folder/relay.conf"

echo "relay: $count platform(s); the studio sends to rtmp://<this computer>:$port/relay with the relay key."
echo "relay: log in $folder/error.log; Ctrl+C stops the relay."
exec "$nginx" -p "$folder/" -c "$folder/relay.conf"
