<?php
class Blog_Db {
	var $dbh;
	var $use_mysqli = true;
	function Blog_Db( $host, $name ) { //= constructor_named_like_its_class
		if ( ! $this->use_mysqli ) {
			$this->dbh = mysql_connect( $host ); //= mysql_connect
			mysql_select_db( $name, $this->dbh ); //= mysql_select_db
		}
	}
	function query( $sql ) {
		$result = mysql_query( $sql, $this->dbh ); //= mysql_query
		while ( $row = mysql_fetch_object( $result ) ) { //= mysql_fetch_object
			$rows[] = $row;
		}
		return mysql_num_rows( $result ); //= mysql_num_rows
	}
	function get_row( $id ) {
		$columns = implode( array( 'id', 'title' ), ',' ); //= implode
		list( $first, $second ) = split( ',', $columns ); //= split +split
		return array( $first => $id, $second => utf8_encode( 'Hello' ) ); //= utf8_encode +utf8_encode
	}
}
class Blog_Rewrite {
	function rules( $type ) {
		return ereg_replace( '[^a-z]', '', $type ); //= ereg_replace +ereg_replace
	}
}
