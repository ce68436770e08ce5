<?php
/* Discuz! X3: the core class makes the application once. */
abstract class discuz_base {
}
class discuz_application extends discuz_base {
	static function &instance() {
		static $object;
		if (empty($object)) { $object = new self(); }
		return $object;
	}
	public function init() { echo 'forum'; }
}
class core {
	private static $_app;
	public static function app() { return self::$_app; }
	public static function creatapp() {
		if (!is_object(self::$_app)) { self::$_app = discuz_application::instance(); }
		return self::$_app;
	}
}
class C extends core {
}
C::creatapp();
C::app()->init();
# --- /forum.php => URI/forum.php
