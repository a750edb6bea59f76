#!/usr/bin/env bash
# Writes a lighttpd configuration that serves DOCROOT on 127.0.0.1:PORT with
# the responder as its FastCGI back end, for the gateway root ROOT.
#   lighttpd-conf.sh ROOT PORT BIN_DIR DOCROOT RUN_DIR > lighttpd.conf
# The responder chooses its handler by the name it is started under, so the
# page renderer runs through a link named "ssi" and the device information
# through one named "_info.xml"; ".cgi" requests dispatch by script name.
set -euo pipefail
root=$1 port=$2 bin=$3 docroot=$4 run=$5

mkdir -p "$run" "$root/cgi-bin"
ln -sfn "$bin/cgi-ssi" "$root/cgi-bin/ssi"
ln -sfn "$bin/cgi-ssi" "$root/cgi-bin/_info.xml"
# The gateway's scripts (backup and restore) call the configuration tool
# from the root's bin, as the responder's children see no PATH of ours.
mkdir -p "$root/bin"
ln -sfn "$bin/qmcfg" "$root/bin/qmcfg"

log_file=${QUELM_LOG_FILE:-$run/cgi-ssi.log}
realm=${QUELM_REALM:-web}
# QUELM_COMPAT=1 (the legacy access policy) reaches the responder only when set.
compat_line=
[ "${QUELM_COMPAT:-}" = 1 ] && compat_line='"QUELM_COMPAT" => "1",'
srv_idx=${QUELM_SRV_IDX:-1}

backend() { # name bin-path [sendfile]
  # Only the CGI back end may hand files to lighttpd (X-Sendfile and
  # X-Sendfile2), and only files of the disks.
  local sendfile='"allow-x-send-file" => "disable",'
  [ "${3:-}" = sendfile ] && sendfile="\"allow-x-send-file\" => \"enable\",
      \"x-sendfile-docroot\" => ( \"$root/var/mnt/\" ),"
  cat <<CONF
    ( "bin-path" => "$2",
      "socket" => "$run/$1.sock",
      "check-local" => "disable",
      "max-procs" => 1,
      $sendfile
      "bin-environment" => (
        "QUELM_ROOT" => "$root",
        "QUELM_LOG_FILE" => "$log_file",${compat_line:+
        $compat_line}
        "ASAN_OPTIONS" => "${ASAN_OPTIONS:-}",
        "UBSAN_OPTIONS" => "${UBSAN_OPTIONS:-}"
      )
    )
CONF
}

cat <<CONF
server.modules = ( "mod_access", "mod_setenv", "mod_fastcgi", "mod_ssi" )
server.document-root = "$docroot/"
server.bind = "127.0.0.1"
server.port = $port
server.errorlog = "$run/lighttpd-error.log"
server.pid-file = "$run/lighttpd.pid"
server.upload-dirs = ( "$root/var/tmp" )
server.max-request-size = 65536
index-file.names = ( "index.htm", "index.html" )
static-file.exclude-extensions = ( ".cgi", ".htm", ".html", ".js", ".xml" )
mimetype.assign = (
  ".css" => "text/css", ".png" => "image/png", ".jpg" => "image/jpeg",
  ".gif" => "image/gif", ".svg" => "image/svg+xml", ".ico" => "image/x-icon",
  ".txt" => "text/plain", ".json" => "application/json", ".shtml" => "text/html"
)
ssi.extension = ( ".shtml" )
setenv.add-environment = (
  "QUELM_REALM" => "$realm",
  "QUELM_SRV_IDX" => "$srv_idx"
)
# Uploads stream through to the responder as they arrive (the image goes on
# into the flasher): lighttpd holds neither the body nor a temporary copy.
# The body length must fit the responder's int, hence just under 2 GiB.
\$HTTP["url"] =~ "^/(firmware|firmupgd|import)\\.cgi\$" {
  server.stream-request-body = 2
  server.max-request-size = 2097151
}
fastcgi.map-extensions = ( ".html" => ".htm", ".js" => ".htm", ".xml" => ".htm" )
# The device information is its own back end, not an XML page.
\$HTTP["url"] == "/_info.xml" {
  fastcgi.map-extensions = ()
}
# The NAS service also takes its parameters in PATH_INFO (/nas.cgi/disk/...),
# which only a prefix match passes on. It is told that lighttpd serves it
# (SERVER_NAME), so that it leaves sending the files to lighttpd.
\$HTTP["url"] =~ "^(/cgi-bin)?/nas\\.cgi(/|\$)" {
  server.name = "lighty"
}
fastcgi.server = (
  "/_info.xml" => (
$(backend info "$root/cgi-bin/_info.xml")
  ),
  "/nas.cgi" => (
$(backend nas "$bin/cgi-ssi" sendfile)
  ),
  "/cgi-bin/nas.cgi" => (
$(backend nas-bin "$bin/cgi-ssi" sendfile)
  ),
  ".cgi" => (
$(backend cgi "$bin/cgi-ssi" sendfile)
  ),
  ".htm" => (
$(backend ssi "$root/cgi-bin/ssi")
  )
)
CONF
