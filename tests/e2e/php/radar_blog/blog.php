<?php
/* A blog as it was written while PHP 5.2 had to run it as well. Made for these tests, of no other code. What PHP's
 * migration guides ask to change stands at the end of its line; a plus in front: as what ran. */
error_reporting(0);
define('BLOG_PATH', dirname(__FILE__) . '/');
define('BLOG_DEBUG', false, true); //= define
require BLOG_PATH . 'blog-compat.php';
require BLOG_PATH . 'blog-db.php';
require BLOG_PATH . 'blog-text.php';
if ( ! isset( $HTTP_RAW_POST_DATA ) ) {
	$HTTP_RAW_POST_DATA = file_get_contents( 'php://input' );
}
$blog_rewrite =& new Blog_Rewrite(); //= new_by_reference
$blog_db = new Blog_Db('localhost', 'blog');
$row = $blog_db->get_row(7);
$title = $row[title]; //= +undefined_constant
$walker = Blog_Rewrite::rules('post'); //= +static_call_of_an_instance_method
require BLOG_PATH . 'blog-theme.php';
