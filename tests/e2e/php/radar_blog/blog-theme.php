<?php
$text = new Blog_Text( 1 );
add_widget( create_function( '', 'return "Blog_Widget";' ) ); //= create_function +create_function
function add_widget( $factory ) {
	return call_user_method( 'option', $GLOBALS['text'], array( 'title' => 'title' ) ); //= call_user_method +call_user_method
}
#[theme] //= comment_that_begins_with_#[
?>
<h1><?php echo $text->texturize( '&#65;' ), $title ? $title : '(real)'; ?></h1>
<p>It is <?php echo strftime( '%Y' ); //= strftime +strftime
?>, $text{0} <?php echo $text->sizes( 3, 4 ) ?>, <?php echo $text->decode( 'a' ) . $text->utf162utf8( 'ab' ); ?></p>
<?php if ( blog_apply_filters( 'the_title', 'A' ) ) : ?>
<script language="php"> //= <script_language="php">
	echo 'done';
</script>
<?php endif;
