<?php
define('DB_NAME', 'blog');
define('DB_USER', 'web');
define('DB_PASSWORD', 'secret');
define('DB_HOST', 'localhost:' . (require __DIR__ . '/../database.php'));
define('DB_CHARSET', 'utf8');
define('DB_COLLATE', '');
define('WP_HOME', "http://{$_SERVER['HTTP_HOST']}/blog");
define('WP_SITEURL', WP_HOME);
define('WP_DEFAULT_THEME', 'plain');
define('WP_HTTP_BLOCK_EXTERNAL', true);
define('DISABLE_WP_CRON', true);
define('ABSPATH', __DIR__ . '/');
$table_prefix = 'wp_';
require_once ABSPATH . 'wp-settings.php';
