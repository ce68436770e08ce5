<?php
$shown = 0;
while (have_posts()) {
    the_post();
    echo get_the_title(), ' by ', plain_author($post), "\n";
    $shown++;
}
global $wpdb;
echo '<!--', json_encode(array('posts' => $shown, 'statements' => $wpdb->num_queries)), '-->';
