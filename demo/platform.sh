# What the demos share: a sample platform in the private MariaDB and Redis of the testbed, and a
# folder that goes with the demo. To be sourced; $tree is the top of the tree, $here this folder.
# shellcheck shell=bash
: "${tree:?}" "${here:?}"
: "${SPOOLCAP_TEST_FOLDER:?run this under the testbed: make demo}"

root=$SPOOLCAP_TEST_FOLDER/demo
quota_root=$root/var/lib/quorvexquota
media=$root/var/lib/asterisk
trap 'rm -rf -- "$root"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP
mkdir -p "$root"

say() { printf '\n== %s\n' "$*"; }

sql() {
  mariadb --no-defaults --socket="$SPOOLCAP_TEST_MARIADB" --user=root \
    --batch --skip-column-names "$@"
}

configure() {
  mkdir -p "$root"/etc/{quorvex,asterisk}
  cat > "$root/etc/quorvex/paths.conf" <<END
QUORVEX_QUOTA_D $quota_root
ASTERISK_CONF_FILE $root/etc/asterisk/asterisk.conf
END
  cat > "$root/etc/asterisk/asterisk.conf" <<END
[directories]
astspooldir => $root/var/spool/asterisk
astlibdir => $media
astvarlibdir => $media
END
  (umask 027 && : > "$root/etc/quorvex/pbx.conf") # it holds a password
  cat > "$root/etc/quorvex/pbx.conf" <<END
DB_CREDENTIALS main:demo:demo:demo
DISDBASE_CREDENTIALS main:demo::1
END
  echo "DB_MASTER main:$SPOOLCAP_TEST_MARIADB:3306" > "$root/etc/quorvex/sqldbase.conf"
  echo "DISDBASE_HOST main:cache:one:$SPOOLCAP_TEST_REDIS:6379" > "$root/etc/quorvex/disdbase.conf"
  : > "$root/etc/quorvex/local.conf"
}

load_database() {
  sql -e "CREATE DATABASE demo; GRANT ALL ON demo.* TO demo@localhost IDENTIFIED BY 'demo'"
  sql demo < "$tree/tests/support/schema.sql"
  sql demo < "$here/platform.sql"
}
