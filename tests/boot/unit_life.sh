# The unit's life under systemd: reload, restart, stop, the watchdog, a crash,
# an upgrade and the removal. Sourced by checks.sh, after the API checks.

main_pid() { systemctl show -p MainPID --value tavo; }
restarts() { systemctl show -p NRestarts --value tavo; }
served_fingerprint() {
  openssl s_client -connect 192.0.2.10:8780 -servername "$host" </dev/null 2>/dev/null |
    openssl x509 -noout -fingerprint -sha256
}

# reload: a new certificate is presented from the next handshake, and the
# session stays.
old_fp=$(served_fingerprint)
cp /etc/tavo/tls/cert.pem /root/cert.orig && cp /etc/tavo/tls/key.pem /root/key.orig
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj "/CN=$host" \
  -addext "subjectAltName=DNS:$host" -keyout /etc/tavo/tls/key.pem -out /etc/tavo/tls/cert.pem 2>/dev/null
pid_before=$(main_pid)
systemctl reload tavo
for _ in $(seq 50); do [ "$(served_fingerprint)" != "$old_fp" ] && break; sleep 0.1; done
new_fp=$(openssl x509 -in /etc/tavo/tls/cert.pem -noout -fingerprint -sha256)
check_sh "systemctl reload: the new certificate is served by the same process" \
  '[ "$(served_fingerprint)" = "$new_fp" ] && [ "$(main_pid)" = "$pid_before" ]'
expect_ok "systemctl reload: the session is kept" G get '{"name":"fromtools"}'

# restart: requests in flight either finish or never start. A create that
# answered success must be in /etc/group; an HTTP 200 answer that is a
# failure would be a call cut off half way; no answer, or a refusal of the
# session (the new process has none), means it never started.
rm -f /root/inflight.log
(
  for i in $(seq 1 80); do
    r=$("${CURL[@]}" -o /root/inflight.body -w '%{http_code}' -H "Authorization: Bearer $token" \
      -H 'Content-Type: application/json' \
      -d "{\"api\":\"TAVO.Core.Group\",\"version\":1,\"method\":\"create\",\"params\":{\"name\":\"flight$i\"}}" \
      "$base/api" 2>/dev/null)
    echo "$i ${r:-000} $(jq -r '.success // "none"' /root/inflight.body 2>/dev/null || echo none)" >>/root/inflight.log
    rm -f /root/inflight.body
  done
) &
client=$!
sleep 0.2
systemctl restart tavo
wait "$client"
wait_active tavo && wait_port 8780
lost=0 answered=0
while read -r i http result; do
  [ "$result" = true ] && answered=$((answered + 1))
  [ "$result" = true ] && ! getent group "flight$i" >/dev/null && lost=$((lost + 1))
  [ "$http" = 200 ] && [ "$result" = false ] && lost=$((lost + 1))
done </root/inflight.log
check_sh "systemctl restart: every answered create is in /etc/group, none failed ($answered answered, $lost lost)" \
  '[ "$lost" = 0 ] && [ "$answered" -gt 0 ]'
check_sh "systemctl restart: the group files are consistent afterwards" \
  'grpck -r && tavo check --root / | grep -q "consistent"'
login boss Boss-pw-12345

# stop: exits 0 within TimeoutStopSec.
start=$(date +%s)
systemctl stop tavo
took=$(($(date +%s) - start))
check_sh "systemctl stop: the service exits 0 in ${took} s" \
  '[ "$(systemctl show -p ExecMainStatus --value tavo)" = 0 ] && [ "$(systemctl show -p Result --value tavo)" = success ] && [ "$took" -lt 20 ]'
systemctl start tavo && wait_active tavo

# The watchdog: a service whose event threads stop answering is restarted.
mkdir -p /run/systemd/system/tavo.service.d
printf '[Service]\nWatchdogSec=4s\n' >/run/systemd/system/tavo.service.d/watchdog.conf
systemctl daemon-reload && systemctl restart tavo && wait_active tavo
before=$(restarts) frozen=$(main_pid)
systemctl kill -s STOP tavo
for _ in $(seq 150); do [ "$(restarts)" != "$before" ] && break; sleep 0.1; done
wait_active tavo
check_sh "the watchdog: frozen, the service is restarted by systemd" \
  '[ "$(restarts)" -gt "$before" ] && [ "$(main_pid)" != "$frozen" ]'
check_sh "the watchdog: the journal says why" 'journalctl -u tavo --no-pager | grep -qi "watchdog timeout"'
rm -rf /run/systemd/system/tavo.service.d && systemctl daemon-reload

# A crash of the main process: systemd restarts it, nothing is left to repair.
before=$(restarts) victim=$(main_pid)
kill -9 "$victim"
for _ in $(seq 100); do [ "$(restarts)" != "$before" ] && break; sleep 0.1; done
wait_active tavo && wait_port 8780
check "kill -9: systemd restarts the service" [ "$(restarts)" -gt "$before" ]
check_sh "kill -9: tavo check finds nothing to repair" 'tavo check --root / | grep -qx "The group files are consistent."'
login boss Boss-pw-12345 && expect_ok "kill -9: the restarted service answers" G get '{"name":"fromtools"}'

# An upgrade (the package installed again) keeps the configuration.
echo "workers = 3" >>/etc/tavo/serve.conf
echo "maxgroups = 200" >/etc/tavo/tavo.conf
apt-get install -y --reinstall -o Dpkg::Options::=--force-confold /root/tavo_*.deb >/root/apt-reinstall.log 2>&1
check "reinstall: serve.conf keeps the administrator's change" grep -qx "workers = 3" /etc/tavo/serve.conf
check "reinstall: tavo.conf keeps the administrator's change" grep -qx "maxgroups = 200" /etc/tavo/tavo.conf
check "reinstall: the certificate is kept" [ "$(openssl x509 -in /etc/tavo/tls/cert.pem -noout -fingerprint -sha256)" = "$new_fp" ]
check "reinstall: the service runs again" wait_active tavo

# remove and purge leave the account files and "administrators" as they were.
sums() { sha256sum /etc/group /etc/gshadow /etc/passwd /etc/shadow; }
before=$(sums)
apt-get remove -y tavo >/root/apt-remove.log 2>&1
check "apt-get remove: the account files are unchanged" [ "$(sums)" = "$before" ]
check_sh "apt-get remove: the service is gone, its configuration stays" \
  '! systemctl is-active -q tavo && [ -f /etc/tavo/serve.conf ]'
apt-get purge -y tavo >/root/apt-purge.log 2>&1
check "apt-get purge: the account files are unchanged" [ "$(sums)" = "$before" ]
check_sh "apt-get purge: administrators and its members stay" 'getent group administrators | grep -q boss'
check_sh "apt-get purge: the configuration, certificate and event log are gone" \
  '[ ! -e /etc/tavo/serve.conf ] && [ ! -e /etc/tavo/tls ] && [ ! -e /var/lib/tavo ]'
