/* What only a compiler sees of the radar, in the code of one function or file; it may come from opcache's memory, where
 * nobody may write. */
#include "zqp_radar.h"

namespace {

constexpr unsigned MOST_ARGUMENTS = 256, MOST_OPEN_CALLS = 64;

/* One pass over the code of a function or file. */
struct code_scan {
	const zend_op_array *code;
	const zend_op *sends[MOST_ARGUMENTS]; /* arguments of the calls that are being prepared, the outermost first */
	unsigned send_count;
	const zend_op *calls[MOST_OPEN_CALLS]; /* which those are, when the compiler did not know the function yet */
	unsigned call_count;
	bool has_optional; /* a parameter with a default has been */
	uint64 changed;    /* a bit for each of the first 64 parameters that was assigned to */
};
constexpr unsigned MOST_CHANGED = 64;

/* The arguments of one call: the last sends. */
struct arguments {
	const zend_op *const *ops;
	unsigned count;
};

std::string_view text_of(const zval *value)
{
	return value && Z_TYPE_P(value) == IS_STRING ? std::string_view(Z_STRVAL_P(value), (size_t)Z_STRLEN_P(value))
												 : std::string_view();
}

/* The argument as it is written in the call; null when it is computed. */
const zval *literal(arguments given, unsigned number)
{
	if (number >= given.count || given.ops[number]->op1_type != IS_CONST) {
		return NULL;
	}
	return given.ops[number]->op1.zv;
}

bool is_type(const zval *value, int type)
{
	return value && Z_TYPE_P(value) == type;
}

/* Whether a regular expression ends with modifiers among which is e. */
bool has_modifier_e(std::string_view pattern)
{
	size_t begin = pattern.find_first_not_of(" \t\n\r\f\v");
	if (begin == std::string_view::npos) {
		return false;
	}
	const std::string_view opening = "([{<", closing = ")]}>";
	size_t kind = opening.find(pattern[begin]);
	size_t end = pattern.rfind(kind == std::string_view::npos ? pattern[begin] : closing[kind]);
	return end != std::string_view::npos && end > begin && pattern.find('e', end) != std::string_view::npos;
}

bool fits(zq_radar_sign sign, arguments given)
{
	switch (sign) {
	case ZQ_SIGN_CALL: return true;
	case ZQ_SIGN_NO_ARGUMENT: return given.count == 0;
	case ZQ_SIGN_ONE_ARGUMENT: return given.count == 1;
	case ZQ_SIGN_SEVEN_ARGUMENTS: return given.count == 7;
	case ZQ_SIGN_FIRST_TEXT: return is_type(literal(given, 0), IS_STRING) && *Z_STRVAL_P(literal(given, 0));
	case ZQ_SIGN_SECOND_TEXT: return is_type(literal(given, 1), IS_STRING) && !is_type(literal(given, 0), IS_STRING);
	case ZQ_SIGN_THIRD_TEXT: return is_type(literal(given, 2), IS_STRING);
	case ZQ_SIGN_SECOND_NUMBER: return is_type(literal(given, 1), IS_LONG);
	case ZQ_SIGN_THIRD_TRUE: return is_type(literal(given, 2), IS_BOOL) && Z_BVAL_P(literal(given, 2));
	case ZQ_SIGN_FIRST_E: return has_modifier_e(text_of(literal(given, 0)));
	case ZQ_SIGN_FOURTH_E: return text_of(literal(given, 3)).find('e') != std::string_view::npos;
	case ZQ_SIGN_SECOND_FATAL:
		return is_type(literal(given, 1), IS_LONG) && Z_LVAL_P(literal(given, 1)) == E_USER_ERROR;
	default: return false;
	}
}

void note_line(const code_scan *scan, uint line, zq_radar_sign sign, std::string_view name TSRMLS_DC)
{
	zq_radar_place place = {scan->code->filename, line, scan->code};
	zq_radar_note_compiled(sign, name, &place TSRMLS_CC);
}

void note_sign(const code_scan *scan, const zend_op *op, zq_radar_sign sign, std::string_view name TSRMLS_DC)
{
	note_line(scan, op->lineno, sign, name TSRMLS_CC);
}

/* The script has a function of its own with that name, in lower case. */
bool is_the_scripts(std::string_view name TSRMLS_DC)
{
	zend_function *function;
	return zend_hash_find(EG(function_table), name.data(), (uint)name.size() + 1, (void **)&function) == SUCCESS &&
		function->type == ZEND_USER_FUNCTION;
}

/* Whether func_get_args(), or func_get_arg() of a parameter, gives what was assigned to it. */
bool gives_changed(const code_scan *scan, std::string_view name, arguments given)
{
	const zval *number = literal(given, 0);
	if (name == "func_get_arg" && is_type(number, IS_LONG)) {
		return (unsigned long)Z_LVAL_P(number) < MOST_CHANGED && scan->changed >> Z_LVAL_P(number) & 1;
	}
	return scan->changed && (name == "func_get_args" || name == "func_get_arg");
}

/* A call that is complete. */
void end_call(code_scan *scan, const zend_op *op, std::string_view name TSRMLS_DC)
{
	unsigned count = (unsigned)op->extended_value;
	count = count < scan->send_count ? count : scan->send_count;
	scan->send_count -= count;
	arguments given = {scan->sends + scan->send_count, count};
	if (name.empty()) {
		return;
	}
	if (name == "ini_set" || name == "ini_alter") {
		note_sign(scan, op, ZQ_SIGN_SETTING, text_of(literal(given, 0)) TSRMLS_CC);
	}
	if (gives_changed(scan, name, given)) {
		note_sign(scan, op, ZQ_SIGN_SYNTAX, "func_get_args after a change" TSRMLS_CC);
	}
	const zq_radar_name *end = zq_radar_names.data() + zq_radar_names.size();
	for (const zq_radar_name *at = zq_radar_find(name); at != end && zq_radar_compare(at->text, name) == 0; at++) {
		zq_radar_sign sign = zq_radar_rules[at->row].sign;
		if (fits(sign, given) && !is_the_scripts(name TSRMLS_CC)) {
			note_sign(scan, op, sign, name TSRMLS_CC);
		}
	}
}

/* The name, in lower case, of the function that a call by name prepares; empty when it is a method's or unknown. */
std::string_view name_of(const zend_op *op)
{
	if (!op || op->op2_type != IS_CONST) {
		return {};
	}
	/* behind the name as written: the same in lower case; in a namespace that one, and the name alone */
	switch (op->opcode) {
	case ZEND_INIT_FCALL_BY_NAME: return text_of(&op->op2.literal[1].constant);
	case ZEND_INIT_NS_FCALL_BY_NAME: return text_of(&op->op2.literal[2].constant);
	default: return {};
	}
}

void begin_call(code_scan *scan, const zend_op *op)
{
	if (scan->call_count < MOST_OPEN_CALLS) {
		scan->calls[scan->call_count] = op;
	}
	scan->call_count++;
}

void end_call_by_name(code_scan *scan, const zend_op *op TSRMLS_DC)
{
	const zend_op *call = NULL;
	if (scan->call_count) {
		scan->call_count--;
		call = scan->call_count < MOST_OPEN_CALLS ? scan->calls[scan->call_count] : NULL;
	}
	end_call(scan, op, name_of(call) TSRMLS_CC);
}

bool is_parameter(const zend_op *op)
{
	return op->opcode == ZEND_RECV || op->opcode == ZEND_RECV_INIT;
}

/* PHP 5.6 gives the last parameter the line of the parenthesis behind it. Two lines or more below what stands before
 * the parameter that is taken to have a line of its own, as coding standards ask, and the parameter the one above. */
uint line_of_parameter(const code_scan *scan, const zend_op *op)
{
	bool is_first = op == scan->code->opcodes || !is_parameter(op - 1);
	uint above = is_first ? scan->code->line_start : op[-1].lineno;
	bool is_last = op->op1.num == scan->code->num_args;
	return is_last && op->lineno >= above + 2 ? op->lineno - 1 : op->lineno;
}

void see_parameter(code_scan *scan, const zend_op *op TSRMLS_DC)
{
	unsigned number = op->op1.num;
	if (number == 0 || number > scan->code->num_args || !scan->code->arg_info) {
		return;
	}
	const zend_arg_info *parameter = &scan->code->arg_info[number - 1];
	uint line = line_of_parameter(scan, op);
	bool has_type = parameter->class_name || parameter->type_hint;
	if (op->opcode == ZEND_RECV_INIT) {
		if (has_type && parameter->allow_null) {
			note_line(scan, line, ZQ_SIGN_SYNTAX, "implicitly nullable parameter" TSRMLS_CC);
		} else {
			scan->has_optional = true;
		}
	} else if (scan->has_optional) {
		note_line(scan, line, ZQ_SIGN_SYNTAX, "required after optional parameter" TSRMLS_CC);
	}
	for (unsigned other = 0; other + 1 < number; other++) {
		if (scan->code->arg_info[other].name_len == parameter->name_len &&
			memcmp(scan->code->arg_info[other].name, parameter->name, parameter->name_len) == 0) {
			note_line(scan, line, ZQ_SIGN_SYNTAX, "duplicate parameter" TSRMLS_CC);
		}
	}
}

bool is_assignment(zend_uchar opcode)
{
	return (opcode >= ZEND_ASSIGN_ADD && opcode <= ZEND_ASSIGN_BW_XOR) || opcode == ZEND_ASSIGN ||
		opcode == ZEND_ASSIGN_REF || (opcode >= ZEND_PRE_INC && opcode <= ZEND_POST_DEC);
}

/* Code that gives the variable a value itself does not wait for PHP to set it. */
bool is_assigned(const zend_op_array *code, zend_uint number)
{
	for (const zend_op *op = code->opcodes; op < code->opcodes + code->last; op++) {
		if (op->opcode == ZEND_ASSIGN && op->op1_type == IS_CV && op->op1.var == number) {
			return true;
		}
	}
	return false;
}

/* Variables of functions have numbers; the first opcode that has one is where it is first used. */
void see_variables(const code_scan *scan TSRMLS_DC)
{
	const zend_op_array *code = scan->code;
	for (int number = 0; number < code->last_var; number++) {
		bool is_wanted =
			zq_radar_rule_of(ZQ_SIGN_VARIABLE, code->vars[number].name) && !is_assigned(code, (zend_uint)number);
		for (zend_uint i = 0; is_wanted && i < code->last; i++) {
			const zend_op *op = &code->opcodes[i];
			if ((op->op1_type == IS_CV && op->op1.var == (zend_uint)number) ||
				(op->op2_type == IS_CV && op->op2.var == (zend_uint)number)) {
				note_sign(scan, op, ZQ_SIGN_VARIABLE, code->vars[number].name TSRMLS_CC);
			}
		}
	}
}

/* An index of $GLOBALS, which the opcode before has fetched. */
bool is_of_globals(const code_scan *scan, const zend_op *op)
{
	return op > scan->code->opcodes && op[-1].op1_type == IS_CONST && op[-1].op2_type == IS_UNUSED &&
		op[-1].result.var == op->op1.var && text_of(op[-1].op1.zv) == "GLOBALS";
}

void see_operation(code_scan *scan, const zend_op *op TSRMLS_DC)
{
	switch (op->opcode) {
	case ZEND_SEND_VAL:
	case ZEND_SEND_VAR:
	case ZEND_SEND_VAR_NO_REF:
	case ZEND_SEND_REF:
		if (scan->send_count < MOST_ARGUMENTS) {
			scan->sends[scan->send_count++] = op;
		}
		break;
	case ZEND_INIT_FCALL_BY_NAME:
	case ZEND_INIT_NS_FCALL_BY_NAME:
	case ZEND_INIT_METHOD_CALL:
	case ZEND_INIT_STATIC_METHOD_CALL:
	case ZEND_NEW: begin_call(scan, op); break;
	case ZEND_DO_FCALL: end_call(scan, op, text_of(op->op1.zv) TSRMLS_CC); break;
	case ZEND_DO_FCALL_BY_NAME: end_call_by_name(scan, op TSRMLS_CC); break;
	case ZEND_RECV:
	case ZEND_RECV_INIT: see_parameter(scan, op TSRMLS_CC); break;
	case ZEND_CAST:
		if (op->extended_value == IS_NULL) {
			note_sign(scan, op, ZQ_SIGN_SYNTAX, "(unset) cast" TSRMLS_CC);
		}
		break;
	case ZEND_ASSIGN_REF:
		if (op->extended_value == (ZEND_RETURNS_NEW)) {
			note_sign(scan, op, ZQ_SIGN_SYNTAX, "new by reference" TSRMLS_CC);
		}
		break;
	case ZEND_ADD_INTERFACE:
		if (op->op2_type == IS_CONST) {
			note_sign(scan, op, ZQ_SIGN_INTERFACE, text_of(op->op2.zv) TSRMLS_CC);
		}
		break;
	case ZEND_FETCH_R:
	case ZEND_FETCH_W:
	case ZEND_FETCH_RW:
	case ZEND_FETCH_IS:
	case ZEND_FETCH_FUNC_ARG:
		if (op->op1_type == IS_CONST && op->op2_type == IS_UNUSED) {
			note_sign(scan, op, ZQ_SIGN_VARIABLE, text_of(op->op1.zv) TSRMLS_CC);
		}
		break;
	case ZEND_FETCH_DIM_R:
	case ZEND_FETCH_DIM_IS:
	case ZEND_ISSET_ISEMPTY_DIM_OBJ:
		if (op->op2_type == IS_CONST && is_of_globals(scan, op)) {
			note_sign(scan, op, ZQ_SIGN_VARIABLE, text_of(op->op2.zv) TSRMLS_CC);
		}
		break;
	default: break;
	}
	if (is_assignment(op->opcode) && op->op1_type == IS_CV && op->op1.var < scan->code->num_args &&
		op->op1.var < MOST_CHANGED) {
		scan->changed |= uint64{1} << op->op1.var;
	}
}

} // namespace

void zq_radar_note_compiled(zq_radar_sign sign, std::string_view name, const zq_radar_place *at TSRMLS_DC)
{
	if (zq_radar_rule_of(sign, name)) {
		zq_radar_note(sign, name, zq_radar_hash(name), at, ZQ_RADAR_COMPILED TSRMLS_CC);
	}
}

void zq_radar_scan_code(const zend_op_array *code TSRMLS_DC)
{
	if (!code->filename || (code->fn_flags & ZEND_ACC_ABSTRACT)) {
		return;
	}
	code_scan scan; /* its lists are filled before they are read */
	scan.code = code;
	scan.send_count = scan.call_count = 0;
	scan.has_optional = false;
	scan.changed = 0;
	for (zend_uint i = 0; i < code->last; i++) {
		see_operation(&scan, &code->opcodes[i] TSRMLS_CC);
	}
	see_variables(&scan TSRMLS_CC);
}
