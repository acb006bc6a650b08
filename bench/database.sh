#!/usr/bin/env bash
# [ROWS [ROUNDS]]: export and import of a table against mariadb-dump and the standard client, which run
# without Wine; zopctl must have been built. Prints milliseconds, programs' starts included.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [ -z "${ZOP_TEST_DB_PORT-}" ]; then
    exec "$here/scripts/sandbox.sh" --database "${BASH_SOURCE[0]}" "$@"
fi
rows=${1:-200000} rounds=${2:-5}
export MYSQL_PWD=$ZOP_TEST_DB_PASSWORD
server=(--no-defaults --protocol=tcp --host="$ZOP_TEST_DB_HOST" --port="$ZOP_TEST_DB_PORT" --user="$ZOP_TEST_DB_USER"
    --default-character-set=utf8mb4)
work=$(mktemp -d /dev/shm/zop.XXXXXX)
trap 'rm -rf "$work"' EXIT
ours=$ZOP_WINEPREFIX/drive_c/ours.sql

configure() { # NAME TYPE VALUE
    "$here/scripts/wine.sh" reg add 'HKLM\SOFTWARE\Tarvo\ZOP Config\Config' /reg:32 /v "$1" /t "$2" /d "$3" /f > "$work/log"
}
zopctl() { "$here/scripts/wine.sh" "$here/build/release/bin/zopctl.exe" database "$@" --yes --quiet; }
dump() { mariadb-dump "${server[@]}" --single-transaction --hex-blob zop_test bench --result-file="$work/dump.sql"; }
load() { # FILE
    mariadb "${server[@]}" -e 'SET foreign_key_checks = 0; CREATE OR REPLACE DATABASE zop_test_bench CHARACTER SET utf8mb4'
    mariadb "${server[@]}" zop_test_bench < "$1"
}
timed() { # NAME COMMAND...
    local start name=$1
    start=$(date +%s%N)
    "${@:2}"
    printf '%s %d  ' "$name" $((($(date +%s%N) - start) / 1000000))
}

configure MySQLHost REG_SZ "$ZOP_TEST_DB_HOST"
configure MySQLPort REG_DWORD "$ZOP_TEST_DB_PORT"
configure MySQLLogin REG_SZ "$ZOP_TEST_DB_USER"
configure MySQLPassword REG_SZ "$ZOP_TEST_DB_PASSWORD"
configure MySQLDatabase REG_SZ zop_test
mariadb "${server[@]}" zop_test <<SQL
CREATE TABLE bench (id INT UNSIGNED AUTO_INCREMENT PRIMARY KEY, login VARCHAR(255) NOT NULL UNIQUE, home TEXT,
    quota BIGINT UNSIGNED, note VARCHAR(200), sum VARBINARY(16), changed TIMESTAMP, KEY (quota));
INSERT INTO bench SELECT seq, CONCAT('user-', seq, '.example.com'), CONCAT('C:\\\\vhosts\\\\user-', seq),
    seq * 7919 % 1000003, REPEAT(CHAR(97 + seq % 26), seq % 180), UNHEX(MD5(seq)), FROM_UNIXTIME(1700000000 + seq)
    FROM seq_1_to_$rows;
SQL
for ((round = 0; round < rounds; ++round)); do
    if command -v mariadb-dump > /dev/null; then
        timed dump dump
        timed load load "$work/dump.sql"
    fi
    timed export zopctl export 'C:\ours.sql'
    timed "load-ours" load "$ours"
    timed import zopctl import 'C:\ours.sql' --database zop_test_bench
    echo
done
