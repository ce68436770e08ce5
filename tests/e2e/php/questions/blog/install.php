<?php
$_SERVER['HTTP_HOST'] = $argv[1];
define('WP_INSTALLING', true);
require __DIR__ . '/wp-load.php';
require ABSPATH . 'wp-admin/includes/upgrade.php';
add_filter('pre_http_request', '__return_true'); /* it would ask its own pages, which are not there yet */
wp_install('Blog', 'admin', 'admin@blog.test', true, '', 'secret');
for ($n = 1; $n <= 12; $n++) {
    wp_insert_post(array('post_title' => "Post $n", 'post_status' => 'publish', 'post_content' => 'Text.'));
}
update_option('permalink_structure', '');
