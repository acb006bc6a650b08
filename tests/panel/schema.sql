-- The tables of the panel's database that the library reads and writes, with the columns that it
-- uses. docs/database.md says what they mean.

-- Logins are compared letter by letter: Windows tells those with and without an accent apart.
CREATE TABLE sys_users (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
    login VARCHAR(255) COLLATE utf8mb4_nopad_bin NOT NULL UNIQUE,
    password TEXT NOT NULL,
    home TEXT NOT NULL,
    quota BIGINT UNSIGNED NOT NULL DEFAULT 0
) ENGINE = InnoDB;

CREATE TABLE domains (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
    name VARCHAR(255) NOT NULL UNIQUE,
    htype VARCHAR(32) NOT NULL DEFAULT 'none'
) ENGINE = InnoDB;

CREATE TABLE hosting (
    dom_id INT UNSIGNED NOT NULL PRIMARY KEY,
    sys_user_id INT UNSIGNED NOT NULL,
    www_root TEXT NOT NULL,
    app_pool_user VARCHAR(255) COLLATE utf8mb4_nopad_bin,
    FOREIGN KEY (dom_id) REFERENCES domains (id) ON DELETE CASCADE,
    FOREIGN KEY (sys_user_id) REFERENCES sys_users (id)
) ENGINE = InnoDB;

CREATE TABLE ftp_users (
    id INT UNSIGNED NOT NULL AUTO_INCREMENT PRIMARY KEY,
    dom_id INT UNSIGNED NOT NULL,
    sys_user_id INT UNSIGNED,
    FOREIGN KEY (dom_id) REFERENCES domains (id) ON DELETE CASCADE,
    FOREIGN KEY (sys_user_id) REFERENCES sys_users (id) ON DELETE SET NULL
) ENGINE = InnoDB;

CREATE TABLE ServiceNodeEnvironment (
    serviceNodeId INT UNSIGNED NOT NULL,
    section VARCHAR(64) NOT NULL,
    name VARCHAR(64) NOT NULL,
    value TEXT,
    PRIMARY KEY (serviceNodeId, section, name)
) ENGINE = InnoDB;
