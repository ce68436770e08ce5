/* What PHP 7.0 and later removed, changed or deprecated, and how it is recognised in code for PHP 5.6. From the
 * migration guides of the PHP manual and the UPGRADING file of each version. Free of the engine: the agent finds by
 * these rows, the daemon explains by them. A new one is a row. */
#ifndef ZQP_RADAR_RULES_H
#define ZQP_RADAR_RULES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

/* By what the agent recognises the use. The numbers go over the wire, so they stay; names are on the protocol page. */
enum zq_radar_sign : uint8_t {
	ZQ_SIGN_CALL = 1,        /* a call of the function */
	ZQ_SIGN_NO_ARGUMENT = 2, /* the same, with certain arguments, as far as they are written in the call */
	ZQ_SIGN_ONE_ARGUMENT = 3,
	ZQ_SIGN_SEVEN_ARGUMENTS = 4,
	ZQ_SIGN_FIRST_TEXT = 5,
	ZQ_SIGN_SECOND_TEXT = 6, /* and the first is no text */
	ZQ_SIGN_THIRD_TEXT = 7,
	ZQ_SIGN_SECOND_NUMBER = 8,
	ZQ_SIGN_THIRD_TRUE = 9,
	ZQ_SIGN_FIRST_E = 10,      /* the regular expression has the modifier e */
	ZQ_SIGN_FOURTH_E = 11,     /* the option e */
	ZQ_SIGN_SECOND_FATAL = 12, /* E_USER_ERROR */
	ZQ_SIGN_SETTING = 32,      /* a setting of php.ini that is set */
	ZQ_SIGN_VARIABLE = 33,
	ZQ_SIGN_CLASS_NAME = 34,    /* a class of that name is declared in the global namespace */
	ZQ_SIGN_RESERVED_NAME = 35, /* in any namespace */
	ZQ_SIGN_FUNCTION_NAME = 36, /* a function of that name is declared, in the global namespace and unconditionally */
	ZQ_SIGN_INTERFACE = 37,     /* a class implements it */
	ZQ_SIGN_SYNTAX = 38,        /* seen in the compiled code */
	ZQ_SIGN_MESSAGE = 39        /* PHP 5.6 raised an error that is another one now */
};

enum zq_radar_effect : uint8_t { ZQ_REMOVED, ZQ_CHANGED, ZQ_DEPRECATED };

struct zq_radar_rule {
	std::string_view names; /* separated by blanks; with signs from VARIABLE on and a blank inside: one name */
	zq_radar_sign sign;
	int version; /* from which on it is so: 100 times major plus minor */
	zq_radar_effect effect;
	std::string_view what; /* what happens there */
	std::string_view instead;
};

constexpr bool zq_radar_is_phrase(zq_radar_sign sign)
{
	return sign >= ZQ_SIGN_SYNTAX;
}

#define REMOVED ZQ_REMOVED, "the function is gone: a fatal error"
#define GONE ZQ_REMOVED, "the setting is gone and has no effect"
#define DEPRECATED ZQ_DEPRECATED, "deprecated"
#define RESERVED ZQ_CHANGED, "the name is reserved: the file does not compile"
#define TAKEN ZQ_CHANGED, "PHP has a class of that name: a fatal error"
#define BUILT_IN ZQ_CHANGED, "PHP has a function of that name: a fatal error"

inline constexpr auto zq_radar_rules = std::to_array<zq_radar_rule>({
	/* 7.0: extensions */
	{"mysql_affected_rows mysql_client_encoding mysql_close mysql_connect mysql_create_db mysql_data_seek "
	 "mysql_db_name mysql_db_query mysql_drop_db mysql_errno mysql_error mysql_escape_string mysql_fetch_array "
	 "mysql_fetch_assoc mysql_fetch_field mysql_fetch_lengths mysql_fetch_object mysql_fetch_row mysql_field_flags "
	 "mysql_field_len mysql_field_name mysql_field_seek mysql_field_table mysql_field_type mysql_free_result "
	 "mysql_get_client_info mysql_get_host_info mysql_get_proto_info mysql_get_server_info mysql_info "
	 "mysql_insert_id mysql_list_dbs mysql_list_fields mysql_list_processes mysql_list_tables mysql_num_fields "
	 "mysql_num_rows mysql_pconnect mysql_ping mysql_query mysql_real_escape_string mysql_result mysql_select_db "
	 "mysql_set_charset mysql_stat mysql_tablename mysql_thread_id mysql_unbuffered_query mysql mysql_fieldname "
	 "mysql_fieldtable mysql_fieldlen mysql_fieldtype mysql_fieldflags mysql_selectdb mysql_createdb mysql_dropdb "
	 "mysql_freeresult mysql_numfields mysql_numrows mysql_listdbs mysql_listtables mysql_listfields mysql_dbname "
	 "mysql_table_name",
		ZQ_SIGN_CALL, 700, REMOVED, "mysqli or PDO, with bound parameters"},
	{"ereg eregi", ZQ_SIGN_CALL, 700, REMOVED, "preg_match()"},
	{"ereg_replace eregi_replace", ZQ_SIGN_CALL, 700, REMOVED, "preg_replace()"},
	{"split spliti", ZQ_SIGN_CALL, 700, REMOVED, "explode(), or preg_split() for a pattern"},
	{"sql_regcase", ZQ_SIGN_CALL, 700, REMOVED, "preg_match() with the modifier i"},
	{"mssql_bind mssql_close mssql_connect mssql_data_seek mssql_execute mssql_fetch_array mssql_fetch_assoc "
	 "mssql_fetch_batch mssql_fetch_field mssql_fetch_object mssql_fetch_row mssql_field_length mssql_field_name "
	 "mssql_field_seek mssql_field_type mssql_free_result mssql_free_statement mssql_get_last_message "
	 "mssql_guid_string mssql_init mssql_min_error_severity mssql_min_message_severity mssql_next_result "
	 "mssql_num_fields mssql_num_rows mssql_pconnect mssql_query mssql_result mssql_rows_affected mssql_select_db",
		ZQ_SIGN_CALL, 700, REMOVED, "PDO with dblib or sqlsrv"},
	{"sybase_affected_rows sybase_close sybase_connect sybase_data_seek sybase_deadlock_retry_count "
	 "sybase_fetch_array sybase_fetch_assoc sybase_fetch_field sybase_fetch_object sybase_fetch_row "
	 "sybase_field_seek sybase_free_result sybase_get_last_message sybase_min_client_severity "
	 "sybase_min_error_severity sybase_min_message_severity sybase_min_server_severity sybase_num_fields "
	 "sybase_num_rows sybase_pconnect sybase_query sybase_result sybase_select_db sybase_set_message_handler "
	 "sybase_unbuffered_query",
		ZQ_SIGN_CALL, 700, REMOVED, "PDO with dblib"},

	/* 7.0: functions */
	{"call_user_method", ZQ_SIGN_CALL, 700, REMOVED, "call_user_func()"},
	{"call_user_method_array", ZQ_SIGN_CALL, 700, REMOVED, "call_user_func_array()"},
	{"mcrypt_generic_end", ZQ_SIGN_CALL, 700, REMOVED, "openssl_encrypt() or sodium"},
	{"mcrypt_ecb mcrypt_cbc mcrypt_cfb mcrypt_ofb", ZQ_SIGN_CALL, 700, REMOVED, "openssl_encrypt() or sodium"},
	{"datefmt_set_timezone_id", ZQ_SIGN_CALL, 700, REMOVED, "datefmt_set_timezone()"},
	{"set_magic_quotes_runtime magic_quotes_runtime", ZQ_SIGN_CALL, 700, REMOVED, "nothing: drop the call"},
	{"set_socket_blocking", ZQ_SIGN_CALL, 700, REMOVED, "stream_set_blocking()"},
	{"imagepsbbox imagepsencodefont imagepsextendfont imagepsfreefont imagepsloadfont imagepsslantfont imagepstext",
		ZQ_SIGN_CALL, 700, REMOVED, "imagettftext() with TrueType fonts"},
	{"dl", ZQ_SIGN_CALL, 700, ZQ_CHANGED, "gone from FPM; the command line and CGI keep it", "extension= in php.ini"},
	{"preg_replace", ZQ_SIGN_FIRST_E, 700, ZQ_REMOVED, "the modifier e is gone: a warning, and null is returned",
		"preg_replace_callback()"},
	{"setlocale", ZQ_SIGN_FIRST_TEXT, 700, ZQ_REMOVED, "a category given as text is refused",
		"the constant, such as LC_ALL"},
	{"mktime gmmktime", ZQ_SIGN_SEVEN_ARGUMENTS, 700, ZQ_REMOVED, "the argument is_dst is gone",
		"a time zone of its own"},

	/* 7.0: language and settings */
	{"HTTP_RAW_POST_DATA", ZQ_SIGN_VARIABLE, 700, ZQ_REMOVED, "the variable is never set",
		"file_get_contents('php://input')"},
	{"new by reference", ZQ_SIGN_SYNTAX, 700, ZQ_REMOVED, "`=& new` does not compile", "`= new`"},
	{"duplicate parameter", ZQ_SIGN_SYNTAX, 700, ZQ_REMOVED, "two parameters of one name do not compile",
		"a name for each"},
	{"index behind a variable variable", ZQ_SIGN_SYNTAX, 700, ZQ_CHANGED,
		"the index is of what the name leads to, no longer of the name",
		"braces: ${$names['x']}, $object->{$names['x']}"},
	{"<script language=\"php\">", ZQ_SIGN_SYNTAX, 700, ZQ_REMOVED, "opens no code: it is shown to visitors", "`<?php`"},
	{"<% tag", ZQ_SIGN_SYNTAX, 700, ZQ_REMOVED, "opens no code: it is shown to visitors", "`<?php`"},
	{"func_get_args after a change", ZQ_SIGN_SYNTAX, 700, ZQ_CHANGED,
		"parameters that were assigned to before are returned as changed", "func_get_args() on the first line"},
	{"bool int float string null true false", ZQ_SIGN_RESERVED_NAME, 700, RESERVED, "another name"},
	{"Error TypeError ParseError AssertionError Throwable", ZQ_SIGN_CLASS_NAME, 700, TAKEN,
		"another name or a namespace"},
	{"ArithmeticError DivisionByZeroError IntlChar ReflectionGenerator ReflectionType "
	 "SessionUpdateTimestampHandlerInterface",
		ZQ_SIGN_CLASS_NAME, 700, TAKEN, "another name or a namespace"},
	{"intdiv random_int random_bytes error_clear_last gc_mem_caches get_resources preg_replace_callback_array "
	 "posix_setrlimit inflate_init deflate_init",
		ZQ_SIGN_FUNCTION_NAME, 700, BUILT_IN, "function_exists() around it"},
	{"always_populate_raw_post_data", ZQ_SIGN_SETTING, 700, GONE, "php://input"},
	{"asp_tags", ZQ_SIGN_SETTING, 700, ZQ_REMOVED, "`<%` opens no code: it is shown to visitors", "`<?php`"},
	{"xsl.security_prefs", ZQ_SIGN_SETTING, 700, GONE, "XSLTProcessor::setSecurityPrefs()"},
	{"opcache.load_comments", ZQ_SIGN_SETTING, 700, GONE, "opcache.save_comments"},
	{"mysql.allow_local_infile mysql.allow_persistent mysql.connect_timeout mysql.default_host "
	 "mysql.default_password mysql.default_port mysql.default_socket mysql.default_user mysql.max_links "
	 "mysql.max_persistent mysql.trace_mode",
		ZQ_SIGN_SETTING, 700, GONE, "mysqli.* or PDO"},

	/* 7.1 */
	{"missing argument", ZQ_SIGN_MESSAGE, 701, ZQ_CHANGED, "too few arguments throw an ArgumentCountError",
		"a default for the parameter, or the argument"},
	{"void iterable", ZQ_SIGN_RESERVED_NAME, 701, RESERVED, "another name"},
	{"ArgumentCountError ReflectionClassConstant ReflectionNamedType", ZQ_SIGN_CLASS_NAME, 701, TAKEN,
		"another name or a namespace"},
	{"is_iterable session_create_id session_gc pcntl_async_signals openssl_get_curve_names curl_multi_errno "
	 "curl_share_errno curl_share_strerror",
		ZQ_SIGN_FUNCTION_NAME, 701, BUILT_IN, "function_exists() around it"},
	{"session.entropy_file session.entropy_length", ZQ_SIGN_SETTING, 701, GONE, "nothing: PHP has its own source"},
	{"session.hash_function session.hash_bits_per_character", ZQ_SIGN_SETTING, 701, GONE,
		"session.sid_length, session.sid_bits_per_character"},

	/* 7.2 */
	{"mcrypt_create_iv", ZQ_SIGN_CALL, 702, REMOVED, "random_bytes()"},
	{"mcrypt_decrypt mcrypt_encrypt mcrypt_generic mdecrypt_generic mcrypt_generic_init mcrypt_generic_deinit "
	 "mcrypt_module_open mcrypt_module_close mcrypt_enc_get_algorithms_name mcrypt_enc_get_block_size "
	 "mcrypt_enc_get_iv_size mcrypt_enc_get_key_size mcrypt_enc_get_modes_name "
	 "mcrypt_enc_get_supported_key_sizes mcrypt_enc_is_block_algorithm mcrypt_enc_is_block_algorithm_mode "
	 "mcrypt_enc_is_block_mode mcrypt_enc_self_test mcrypt_get_block_size mcrypt_get_cipher_name "
	 "mcrypt_get_iv_size mcrypt_get_key_size mcrypt_list_algorithms mcrypt_list_modes "
	 "mcrypt_module_get_algo_block_size mcrypt_module_get_algo_key_size mcrypt_module_get_supported_key_sizes "
	 "mcrypt_module_is_block_algorithm mcrypt_module_is_block_algorithm_mode mcrypt_module_is_block_mode "
	 "mcrypt_module_self_test",
		ZQ_SIGN_CALL, 702, REMOVED, "openssl_encrypt() or sodium"},
	{"mcrypt.algorithms_dir mcrypt.modes_dir", ZQ_SIGN_SETTING, 702, GONE, "openssl or sodium"},
	{"sql.safe_mode opcache.fast_shutdown", ZQ_SIGN_SETTING, 702, GONE, "nothing"},
	{"object", ZQ_SIGN_RESERVED_NAME, 702, RESERVED, "another name"},
	{"spl_object_id stream_isatty sapi_windows_vt100_support mb_chr mb_ord mb_scrub socket_addrinfo_lookup "
	 "hash_hmac_algos ftp_append openssl_pkcs7_read imagebmp imagecreatefrombmp imagesetclip imagegetclip "
	 "imageresolution imageopenpolygon inflate_get_status inflate_get_read_len",
		ZQ_SIGN_FUNCTION_NAME, 702, BUILT_IN, "function_exists() around it"},

	/* 7.3 */
	{"JsonException CompileError", ZQ_SIGN_CLASS_NAME, 703, TAKEN, "another name or a namespace"},
	{"is_countable array_key_first array_key_last hrtime fpm_get_status net_get_interfaces gc_status "
	 "openssl_pkey_derive ldap_exop_refresh",
		ZQ_SIGN_FUNCTION_NAME, 703, BUILT_IN, "function_exists() around it"},

	/* 7.4 */
	{"wddx_add_vars wddx_deserialize wddx_packet_end wddx_packet_start wddx_serialize_value wddx_serialize_vars",
		ZQ_SIGN_CALL, 704, REMOVED, "json_encode(), json_decode()"},
	{"recode recode_string recode_file", ZQ_SIGN_CALL, 704, REMOVED, "iconv() or mb_convert_encoding()"},
	{"ibase_add_user ibase_affected_rows ibase_backup ibase_blob_add ibase_blob_cancel ibase_blob_close "
	 "ibase_blob_create ibase_blob_echo ibase_blob_get ibase_blob_import ibase_blob_info ibase_blob_open "
	 "ibase_close ibase_commit ibase_commit_ret ibase_connect ibase_db_info ibase_delete_user ibase_drop_db "
	 "ibase_errcode ibase_errmsg ibase_execute ibase_fetch_assoc ibase_fetch_object ibase_fetch_row "
	 "ibase_field_info ibase_free_event_handler ibase_free_query ibase_free_result ibase_gen_id "
	 "ibase_maintain_db ibase_modify_user ibase_name_result ibase_num_fields ibase_num_params ibase_param_info "
	 "ibase_pconnect ibase_prepare ibase_query ibase_restore ibase_rollback ibase_rollback_ret "
	 "ibase_server_info ibase_service_attach ibase_service_detach ibase_set_event_handler ibase_trans "
	 "ibase_wait_event",
		ZQ_SIGN_CALL, 704, REMOVED, "PDO with firebird"},
	{"allow_url_include", ZQ_SIGN_SETTING, 704, DEPRECATED, "a local copy of the file"},
	{"fn", ZQ_SIGN_FUNCTION_NAME, 704, RESERVED, "another name"},
	{"ReflectionReference WeakReference FFI", ZQ_SIGN_CLASS_NAME, 704, TAKEN, "another name or a namespace"},
	{"get_mangled_object_vars mb_str_split password_algos pcntl_unshare imagecreatefromtga openssl_x509_verify "
	 "sapi_windows_set_ctrl_handler",
		ZQ_SIGN_FUNCTION_NAME, 704, BUILT_IN, "function_exists() around it"},

	/* 8.0: functions */
	{"each", ZQ_SIGN_CALL, 800, REMOVED, "foreach"},
	{"create_function", ZQ_SIGN_CALL, 800, REMOVED, "an anonymous function"},
	{"get_magic_quotes_gpc get_magic_quotes_runtime", ZQ_SIGN_CALL, 800, REMOVED, "false: that is all they returned"},
	{"is_real", ZQ_SIGN_CALL, 800, REMOVED, "is_float()"},
	{"money_format", ZQ_SIGN_CALL, 800, REMOVED, "NumberFormatter::formatCurrency()"},
	{"hebrevc", ZQ_SIGN_CALL, 800, REMOVED, "nl2br(hebrev())"},
	{"convert_cyr_string", ZQ_SIGN_CALL, 800, REMOVED, "iconv() or mb_convert_encoding()"},
	{"restore_include_path", ZQ_SIGN_CALL, 800, REMOVED, "ini_restore('include_path')"},
	{"ezmlm_hash", ZQ_SIGN_CALL, 800, REMOVED, "a function of your own"},
	{"fgetss gzgetss", ZQ_SIGN_CALL, 800, REMOVED, "fgets() or gzgets(), and strip_tags()"},
	{"gmp_random", ZQ_SIGN_CALL, 800, REMOVED, "gmp_random_bits() or gmp_random_range()"},
	{"read_exif_data", ZQ_SIGN_CALL, 800, REMOVED, "exif_read_data()"},
	{"png2wbmp jpeg2wbmp image2wbmp", ZQ_SIGN_CALL, 800, REMOVED, "imagewbmp()"},
	{"imap_header", ZQ_SIGN_CALL, 800, REMOVED, "imap_headerinfo()"},
	{"ldap_sort", ZQ_SIGN_CALL, 800, REMOVED, "sorting in PHP"},
	{"ldap_control_paged_result ldap_control_paged_result_response", ZQ_SIGN_CALL, 800, REMOVED,
		"the argument controls of ldap_search()"},
	{"mbregex_encoding", ZQ_SIGN_CALL, 800, REMOVED, "mb_regex_encoding()"},
	{"mbereg mberegi mbereg_replace mberegi_replace mbsplit mbereg_match mbereg_search mbereg_search_pos "
	 "mbereg_search_regs mbereg_search_init mbereg_search_getregs mbereg_search_getpos mbereg_search_setpos",
		ZQ_SIGN_CALL, 800, REMOVED, "the same with mb_ in front, as in mb_ereg()"},
	{"xmlrpc_decode xmlrpc_decode_request xmlrpc_encode xmlrpc_encode_request xmlrpc_get_type "
	 "xmlrpc_is_fault xmlrpc_parse_method_descriptions xmlrpc_server_add_introspection_data "
	 "xmlrpc_server_call_method xmlrpc_server_create xmlrpc_server_destroy "
	 "xmlrpc_server_register_introspection_callback xmlrpc_server_register_method xmlrpc_set_type",
		ZQ_SIGN_CALL, 800, ZQ_REMOVED, "the extension left PHP for PECL", "a library written in PHP"},
	{"parse_str mb_parse_str", ZQ_SIGN_ONE_ARGUMENT, 800, ZQ_CHANGED,
		"without an array it throws an ArgumentCountError", "parse_str($text, $values)"},
	{"assert", ZQ_SIGN_FIRST_TEXT, 800, ZQ_REMOVED, "a text is not evaluated, and so always holds",
		"the expression without quotes"},
	{"define", ZQ_SIGN_THIRD_TRUE, 800, ZQ_REMOVED, "the constant is case-sensitive all the same, with a warning",
		"one spelling"},
	{"mktime gmmktime", ZQ_SIGN_NO_ARGUMENT, 800, ZQ_CHANGED, "the hour is required", "time()"},
	{"strpos stripos strrpos strripos strstr stristr strrchr strchr", ZQ_SIGN_SECOND_NUMBER, 800, ZQ_CHANGED,
		"a number is searched as its digits, not as the character of that code", "chr()"},
	{"implode join", ZQ_SIGN_SECOND_TEXT, 800, ZQ_REMOVED, "the separator as the last argument throws a TypeError",
		"implode($separator, $array)"},
	{"mb_strrpos", ZQ_SIGN_THIRD_TEXT, 800, ZQ_REMOVED, "the encoding as the third argument throws a TypeError",
		"an offset of 0 in front of it"},
	{"mb_ereg_replace mb_eregi_replace", ZQ_SIGN_FOURTH_E, 800, ZQ_REMOVED, "the option e throws a ValueError",
		"mb_ereg_replace_callback()"},

	/* 8.0: language and settings */
	{"__autoload", ZQ_SIGN_FUNCTION_NAME, 800, ZQ_REMOVED, "the name does not compile", "spl_autoload_register()"},
	{"php_errormsg", ZQ_SIGN_VARIABLE, 800, ZQ_REMOVED, "the variable is never set", "error_get_last()"},
	{"constructor named like its class", ZQ_SIGN_SYNTAX, 800, ZQ_CHANGED, "an ordinary method: `new` does not call it",
		"__construct()"},
	{"(unset) cast", ZQ_SIGN_SYNTAX, 800, ZQ_REMOVED, "does not compile", "null, or unset()"},
	{"(real) cast", ZQ_SIGN_SYNTAX, 800, ZQ_REMOVED, "does not compile", "(float)"},
	{"offset in braces", ZQ_SIGN_SYNTAX, 800, ZQ_REMOVED, "does not compile", "brackets: $text[0]"},
	{"nested ternary without parentheses", ZQ_SIGN_SYNTAX, 800, ZQ_REMOVED, "does not compile",
		"parentheses; until now it is (a ? b : c) ? d : e"},
	{"comment that begins with #[", ZQ_SIGN_SYNTAX, 800, ZQ_CHANGED, "it begins an attribute", "a blank behind the #"},
	{"static call of an instance method", ZQ_SIGN_MESSAGE, 800, ZQ_CHANGED, "throws an Error",
		"static in its declaration, or an object"},
	{"undefined constant", ZQ_SIGN_MESSAGE, 800, ZQ_CHANGED, "throws an Error", "quotes around the text"},
	{"division by zero", ZQ_SIGN_MESSAGE, 800, ZQ_CHANGED, "throws a DivisionByZeroError (% since 7.0)",
		"a test of the divisor"},
	{"property of nothing", ZQ_SIGN_MESSAGE, 800, ZQ_CHANGED, "assigning to a property of null throws an Error",
		"new stdClass first"},
	{"wrong type of argument", ZQ_SIGN_MESSAGE, 800, ZQ_CHANGED, "PHP's own functions throw a TypeError",
		"a test or a conversion before the call"},
	{"wrong number of arguments", ZQ_SIGN_MESSAGE, 800, ZQ_CHANGED,
		"PHP's own functions throw an ArgumentCountError when there are too few", "the arguments that are missing"},
	{"incompatible declaration", ZQ_SIGN_MESSAGE, 800, ZQ_CHANGED, "a fatal error", "the parent's parameters"},
	{"modifier e", ZQ_SIGN_MESSAGE, 700, ZQ_REMOVED, "the modifier is gone: a warning, and null is returned",
		"preg_replace_callback()"},
	{"mixed match", ZQ_SIGN_RESERVED_NAME, 800, RESERVED, "another name"},
	{"match", ZQ_SIGN_FUNCTION_NAME, 800, RESERVED, "another name"},
	{"Attribute PhpToken Stringable UnhandledMatchError ValueError WeakMap InternalIterator CurlHandle",
		ZQ_SIGN_CLASS_NAME, 800, TAKEN, "another name or a namespace"},
	{"str_contains str_starts_with str_ends_with fdiv get_debug_type get_resource_id preg_last_error_msg "
	 "openssl_cms_encrypt",
		ZQ_SIGN_FUNCTION_NAME, 800, BUILT_IN, "function_exists() around it"},
	{"track_errors", ZQ_SIGN_SETTING, 800, GONE, "error_get_last()"},
	{"mbstring.func_overload", ZQ_SIGN_SETTING, 800, ZQ_REMOVED, "strlen() and the like count bytes again",
		"mb_strlen() and the like"},
	{"assert.quiet_eval", ZQ_SIGN_SETTING, 800, GONE, "nothing"},
	{"required after optional parameter", ZQ_SIGN_SYNTAX, 800, DEPRECATED, "the required ones first"},
	{"libxml_disable_entity_loader", ZQ_SIGN_CALL, 800, DEPRECATED, "nothing: external entities are off"},
	{"openssl_x509_free openssl_pkey_free openssl_free_key shmop_close", ZQ_SIGN_CALL, 800, DEPRECATED,
		"nothing: drop the call"},
	{"zip_open zip_close zip_read zip_entry_open zip_entry_close zip_entry_read zip_entry_name "
	 "zip_entry_filesize zip_entry_compressedsize zip_entry_compressionmethod",
		ZQ_SIGN_CALL, 800, DEPRECATED, "ZipArchive"},
	{"enchant_broker_get_dict_path enchant_broker_set_dict_path enchant_dict_add_to_personal "
	 "enchant_dict_is_in_session enchant_broker_free enchant_broker_free_dict",
		ZQ_SIGN_CALL, 800, DEPRECATED, "enchant_dict_add(), enchant_dict_is_added(), unset()"},
	{"pg_clientencoding pg_cmdtuples pg_errormessage pg_fieldisnull pg_fieldname pg_fieldnum pg_fieldprtlen "
	 "pg_fieldsize pg_fieldtype pg_freeresult pg_getlastoid pg_loclose pg_locreate pg_loexport pg_loimport "
	 "pg_loopen pg_loread pg_loreadall pg_lounlink pg_lowrite pg_numfields pg_numrows pg_result "
	 "pg_setclientencoding",
		ZQ_SIGN_CALL, 800, DEPRECATED, "the name with underscores, as in pg_num_rows()"},

	/* 8.1 */
	{"strftime gmstrftime", ZQ_SIGN_CALL, 801, DEPRECATED, "date(), or IntlDateFormatter for other languages"},
	{"strptime", ZQ_SIGN_CALL, 801, DEPRECATED, "date_parse_from_format()"},
	{"date_sunrise date_sunset", ZQ_SIGN_CALL, 801, DEPRECATED, "date_sun_info()"},
	{"mhash mhash_count mhash_get_block_size mhash_get_hash_name mhash_keygen_s2k", ZQ_SIGN_CALL, 801, DEPRECATED,
		"hash()"},
	{"odbc_result_all", ZQ_SIGN_CALL, 801, DEPRECATED, "odbc_fetch_array()"},
	{"Serializable", ZQ_SIGN_INTERFACE, 801, ZQ_DEPRECATED, "deprecated without __serialize() and __unserialize()",
		"these two as well"},
	{"never readonly", ZQ_SIGN_RESERVED_NAME, 801, RESERVED, "another name"},
	{"Fiber FiberError ReturnTypeWillChange UnitEnum BackedEnum ReflectionEnum CURLStringFile", ZQ_SIGN_CLASS_NAME, 801,
		TAKEN, "another name or a namespace"},
	{"array_is_list fsync fdatasync imagecreatefromavif imageavif", ZQ_SIGN_FUNCTION_NAME, 801, BUILT_IN,
		"function_exists() around it"},
	{"auto_detect_line_endings filter.default oci8.old_oci_close_semantics", ZQ_SIGN_SETTING, 801, DEPRECATED,
		"nothing"},

	/* 8.2 and later */
	{"utf8_encode utf8_decode", ZQ_SIGN_CALL, 802, DEPRECATED, "mb_convert_encoding()"},
	{"mysqli.reconnect", ZQ_SIGN_SETTING, 802, GONE, "a new connection"},
	{"AllowDynamicProperties SensitiveParameter SensitiveParameterValue", ZQ_SIGN_CLASS_NAME, 802, TAKEN,
		"another name or a namespace"},
	{"curl_upkeep ini_parse_quantity memory_reset_peak_usage sodium_crypto_stream_xchacha20_xor_ic "
	 "openssl_cipher_key_length mysqli_execute_query imap_is_open libxml_get_external_entity_loader",
		ZQ_SIGN_FUNCTION_NAME, 802, BUILT_IN, "function_exists() around it"},
	{"get_class get_parent_class", ZQ_SIGN_NO_ARGUMENT, 803, ZQ_DEPRECATED, "deprecated without an argument",
		"self::class or parent::class"},
	{"assert_options", ZQ_SIGN_CALL, 803, DEPRECATED, "zend.assertions, assert.exception"},
	{"assert.active assert.bail assert.callback assert.warning assert.exception", ZQ_SIGN_SETTING, 803, DEPRECATED,
		"zend.assertions"},
	{"Override DateError DateException", ZQ_SIGN_CLASS_NAME, 803, TAKEN, "another name or a namespace"},
	{"json_validate mb_str_pad str_increment str_decrement posix_sysconf posix_pathconf posix_fpathconf "
	 "posix_eaccess stream_context_set_options ldap_connect_wallet ldap_exop_sync pg_set_error_context_visibility "
	 "socket_atmark",
		ZQ_SIGN_FUNCTION_NAME, 803, BUILT_IN, "function_exists() around it"},
	{"implicitly nullable parameter", ZQ_SIGN_SYNTAX, 804, ZQ_DEPRECATED,
		"a typed parameter that is nullable by its default null alone is deprecated",
		"?Type, once nothing below 7.1 runs it"},
	{"trigger_error user_error", ZQ_SIGN_SECOND_FATAL, 804, ZQ_DEPRECATED, "E_USER_ERROR is deprecated",
		"an exception, or exit"},
	{"mysqli_ping mysqli_kill mysqli_refresh", ZQ_SIGN_CALL, 804, DEPRECATED, "the statement: SELECT 1, KILL, FLUSH"},
	{"lcg_value", ZQ_SIGN_CALL, 804, DEPRECATED, "Random\\Randomizer::getFloat()"},
	{"array_find array_find_key array_any array_all mb_trim mb_ltrim mb_rtrim mb_ucfirst mb_lcfirst bcceil "
	 "bcfloor bcround bcdivmod fpow http_get_last_response_headers http_clear_last_response_headers "
	 "request_parse_body grapheme_str_split pcntl_getcpu pcntl_setns pcntl_waitid",
		ZQ_SIGN_FUNCTION_NAME, 804, BUILT_IN, "function_exists() around it"},
	{"curl_close curl_share_close xml_parser_free finfo_close imagedestroy", ZQ_SIGN_CALL, 805, DEPRECATED,
		"nothing: drop the call"},
	{"mysqli_execute", ZQ_SIGN_CALL, 805, DEPRECATED, "mysqli_stmt_execute()"},
	{"socket_set_timeout", ZQ_SIGN_CALL, 805, DEPRECATED, "stream_set_timeout()"},
});
#undef REMOVED
#undef GONE
#undef DEPRECATED
#undef RESERVED
#undef TAKEN
#undef BUILT_IN

#endif
