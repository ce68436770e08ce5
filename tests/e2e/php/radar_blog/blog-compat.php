<?php
if ( ! function_exists( 'hash_equals' ) ) :
	function hash_equals( $a, $b ) {
		return $a === $b;
	}
endif;
if ( ! function_exists( 'spl_autoload_register' ) ) {
	function __autoload( $class ) {
		include $class . '.php';
	}
}
function is_countable( $value ) { //= is_countable
	return is_array( $value ) || $value instanceof Countable;
}
function blog_fix_server_vars() {
	if ( version_compare( PHP_VERSION, '5.4', '<' ) ) {
		@set_magic_quotes_runtime( 0 ); //= set_magic_quotes_runtime
	}
	if ( get_magic_quotes_gpc() ) { //= get_magic_quotes_gpc +get_magic_quotes_gpc
		$_GET = array_map( 'stripslashes', $_GET );
	}
	parse_str( 'page=2' ); //= parse_str
	return isset( $GLOBALS['php_errormsg'] ) ? $GLOBALS['php_errormsg'] : ''; //= php_errormsg
}
function blog_apply_filters( $tag, $value ) {
	$filters = array( 'the_title' => array( 'trim', 'strtolower' ) );
	$tag     = strtolower( $tag );
	$args    = func_get_args(); //= func_get_args_after_a_change
	reset( $filters[ $tag ] );
	while ( list( , $filter ) = each( $filters[ $tag ] ) ) { //= each +each
		$value = call_user_func( $filter, $value );
	}
	return $value;
}
function blog_encrypt( $text, $key = '', $mode ) { //= required_after_optional_parameter
	$iv = mcrypt_create_iv( 16, MCRYPT_RAND ); //= mcrypt_create_iv
	return mcrypt_encrypt( MCRYPT_RIJNDAEL_128, $key, $text, $mode, $iv ); //= mcrypt_encrypt
}
function blog_remote_get( $url, Blog_Rewrite $rewrite = null ) { //= implicitly_nullable_parameter
	$handle = curl_init( $url );
	curl_close( $handle ); //= curl_close
}
#[AllowDynamicProperties]
class Object { var $id; } //= Object
if ( ! class_exists( 'Error', false ) ) {
	class Error extends Exception { }
}
class Attribute { } //= Attribute
function blog_rewrite_tag( $name, $args = array() ) {
	if ( ! is_array( $args ) ) {
		$args = array( 'front' => $args );
	}
	if ( 3 == func_num_args() ) {
		$args['mask'] = func_get_arg( 2 );
	}
	return isset( $name['php_errormsg'] ) ? func_get_arg( 1 ) : $args; //= func_get_args_after_a_change
}
function blog_log(
	$text,
	Blog_Text $with = null, //= implicitly_nullable_parameter
	Blog_Rewrite $by = null //= implicitly_nullable_parameter
) {
	return $GLOBALS['HTTP_RAW_POST_DATA'] . $text; //= HTTP_RAW_POST_DATA
}
blog_fix_server_vars();
