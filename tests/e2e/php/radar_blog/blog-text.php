<?php
class Blog_Text {
	function Blog_Text( $use = 0 ) { //= constructor_named_like_its_class
		$this->use = $use;
	}
	function utf162utf8( $utf16 ) {
		$bytes = ( ord( $utf16{0} ) << 8 ) | ord( $utf16{1} ); //= offset_in_braces
		return chr( 0x7F & $bytes );
	}
	function decode( $text ) {
		for ( $c = 0, $out = ''; $c < strlen( $text ); ++$c ) {
			switch ( $text{$c} ) { //= offset_in_braces
				case '"':
					$out .= "$text{0} {$this->use}";
					break;
				default:
					$out .= <<<HTML
$text{0} {$this->use} // (real)
HTML;
			}
		}
		return $out;
	}
	function sizes( $width, $height ) {
		$ratio = (real) $width / max( 1, (int) $height ); //= (real)_cast
		return $ratio > 1 ? 'wide' : $ratio < 1 ? 'tall' : 'square'; //= nested_ternary_without_parentheses
	}
	function texturize( $text ) {
		$text = preg_replace( '/&#([0-9]+);/e', 'chr("\\1")', $text ); //= preg_replace +modifier_e
		return $text ? $text : ( isset( $this->use ) ? '' : null );
	}
	function option( $names ) {
		$title = 'Blog';
		return $$names['title']; //= index_behind_a_variable_variable
	}
}
assert( 'is_countable(array())' ); //= assert
