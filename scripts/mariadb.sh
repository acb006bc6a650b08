# A private database server for one run of a test program; sourced by sandbox.sh, not run.

# DIRECTORY: starts a server on 127.0.0.1 with its data there and the panel's tables in its database
# zop_test, and sets the variables by which tests find it; without the server's package it leaves them unset. The server goes with this shell,
# however that ends, and nobody waits for it: its data are thrown away.
start_database() {
    local data=$1 as_user=() attempt password server
    export PATH=$PATH:/usr/sbin
    command -v mariadbd mariadb-install-db mariadb > /dev/null || return 0
    if [ "$(id -u)" = 0 ]; then # the server refuses to run as root
        chown nobody "$data"
        as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
    fi
    if ! "${as_user[@]}" mariadb-install-db --no-defaults --datadir="$data/files" --skip-test-db --skip-name-resolve \
        --auth-root-authentication-method=normal --innodb-log-file-size=4M > "$data/log" 2>&1; then
        cat "$data/log" >&2
        return 1
    fi
    password=$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')
    # Run before the first connection is taken, so nobody ever gets in without a password.
    printf '%s;\n' > "$data/init.sql" \
        "DELETE FROM mysql.global_priv" \
        "FLUSH PRIVILEGES" \
        "CREATE DATABASE zop_test CHARACTER SET utf8mb4 COLLATE utf8mb4_general_ci" \
        "CREATE USER zop@'%' IDENTIFIED BY '$password'" \
        "GRANT ALL ON \`zop\_test%\`.* TO zop@'%'"
    for attempt in 1 2 3 4 5; do # a port may be taken
        ZOP_TEST_DB_PORT=$((RANDOM % 10000 + 20000))
        "${as_user[@]}" setpriv --pdeathsig KILL mariadbd --no-defaults --datadir="$data/files" \
            --socket="$data/socket" --pid-file="$data/pid" --init-file="$data/init.sql" \
            --bind-address=127.0.0.1 --port="$ZOP_TEST_DB_PORT" --skip-name-resolve --skip-log-bin \
            --lower-case-table-names=1 --innodb-buffer-pool-size=16M --innodb-log-file-size=4M \
            --innodb-flush-log-at-trx-commit=0 --innodb-fast-shutdown=2 --performance-schema=OFF \
            > "$data/log" 2>&1 7>&- < /dev/null &
        server=$!
        until grep -q 'ready for connections' "$data/log"; do
            kill -0 "$server" 2> /dev/null || break
            sleep 0.02
        done
        if kill -0 "$server" 2> /dev/null; then
            MYSQL_PWD=$password mariadb --no-defaults --protocol=tcp --host=127.0.0.1 --port="$ZOP_TEST_DB_PORT" \
                --user=zop --default-character-set=utf8mb4 zop_test < "$root/tests/panel/schema.sql" || return 1
            export ZOP_TEST_DB_HOST=127.0.0.1 ZOP_TEST_DB_PORT ZOP_TEST_DB_USER=zop ZOP_TEST_DB_PASSWORD=$password
            database_server=$server
            return 0
        fi
    done
    cat "$data/log" >&2
    return 1
}

stop_database() {
    [ -n "${database_server-}" ] || return 0
    { kill -KILL "$database_server" && wait "$database_server"; } 2> /dev/null || true
}
