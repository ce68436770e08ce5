<?php
/* What many themes do: one query for each post, past WordPress's own cache. */
function plain_author($post)
{
    global $wpdb;
    return $wpdb->get_var("SELECT display_name FROM $wpdb->users WHERE ID = $post->post_author AND $post->ID > 0");
}
