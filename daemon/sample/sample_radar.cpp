// Rows of what the radar found, told again and again by the daemon's own writing half.
#include "sample/sample_radar.h"

#include "base/clock.h"
#include "store/radar_table.h"

namespace quorbit {

namespace {

struct Found {
	const char *application, *path, *file;
	int line;
	zq_radar_sign sign;
	const char *name, *function;
	int reports; // within 60 days, from the first to the last
	bool ran;
	int last_minutes; // ago
};

#define SHOP "Shop", "/checkout", "/srv/shop/src/"
#define STOCK "Stock", "/item.php", "/srv/stock/"
constexpr Found places[] = {
	{SHOP "Payment.php", 61, ZQ_SIGN_CALL, "mcrypt_encrypt", "Payment::seal", 214, true, 9},
	{SHOP "Payment.php", 58, ZQ_SIGN_CALL, "mcrypt_create_iv", "Payment::seal", 214, true, 9},
	{SHOP "Payment.php", 74, ZQ_SIGN_CALL, "mcrypt_decrypt", "Payment::open", 37, false, 412},
	{SHOP "Cart.php", 102, ZQ_SIGN_CALL, "each", "Cart::sum", 903, true, 1},
	{SHOP "Cart.php", 12, ZQ_SIGN_SYNTAX, "constructor named like its class", "Cart::Cart", 912, false, 1},
	{SHOP "Template.php", 40, ZQ_SIGN_CALL, "create_function", "Template::filter", 655, true, 4},
	{SHOP "Template.php", 88, ZQ_SIGN_MESSAGE, "modifier e", "", 655, true, 4},
	{SHOP "Search.php", 33, ZQ_SIGN_CALL, "split", "Search::words", 320, true, 17},
	{SHOP "Search.php", 35, ZQ_SIGN_CALL, "ereg_replace", "Search::words", 320, true, 17},
	{SHOP "Report.php", 140, ZQ_SIGN_CALL, "strftime", "Report::heading", 41, true, 1290},
	{SHOP "Report.php", 171, ZQ_SIGN_CALL, "utf8_encode", "Report::toExcel", 64, false, 190},
	{SHOP "Product.php", 19, ZQ_SIGN_SYNTAX, "implicitly nullable parameter", "Product::__construct", 940, false, 1},
	{STOCK "lib/levels.php", 7, ZQ_SIGN_MESSAGE, "undefined constant", "", 88, true, 66},
	{STOCK "lib/levels.php", 52, ZQ_SIGN_CALL, "is_real", "level_of", 96, false, 12},
	{STOCK "reserve.php", 3, ZQ_SIGN_VARIABLE, "HTTP_RAW_POST_DATA", "", 71, false, 12},
	{STOCK "lib/soap.php", 205, ZQ_SIGN_CALL, "ereg", "soap_value", 3, false, 2880},
};

struct Known {
	const char *application, *path, *file;
	int line;
	const char *name;
	bool called; // within this day, too
};

constexpr Known functions[] = {
	{SHOP "Payment.php", 50, "Payment::seal", true},
	{SHOP "Payment.php", 70, "Payment::open", true},
	{SHOP "Cart.php", 98, "Cart::sum", true},
	{SHOP "Cart.php", 12, "Cart::Cart", true},
	{SHOP "Product.php", 19, "Product::__construct", true},
	{SHOP "Report.php", 160, "Report::toExcel", false},
	{SHOP "Report.php", 201, "Report::toWord", false},
	{STOCK "lib/levels.php", 48, "level_of", true},
	{STOCK "lib/soap.php", 180, "soap_value", false},
	{STOCK "lib/soap.php", 12, "soap_open", false},
};
#undef SHOP
#undef STOCK

constexpr int64_t known_days = 60;

void add_place(RadarTable &table, const Found &found, int64_t now_ms)
{
	const RadarSite site = {found.file, found.line, found.sign, found.name, found.function, found.ran};
	const int64_t first_ms = now_ms - known_days * day_ms, last_ms = now_ms - found.last_minutes * minute_ms;
	for (int64_t i = 0; i < found.reports; i++) {
		const int64_t at_ms = last_ms - (last_ms - first_ms) * (found.reports - 1 - i) / found.reports;
		table.add(found.application, found.path, {{site}, {}}, at_ms);
	}
}

} // namespace

void add_sample_radar(const std::string &store_path, int64_t now_ms)
{
	Database database(store_path, Database::Mode::read_write);
	RadarTable table(database);
	database.execute("BEGIN IMMEDIATE");
	for (const Found &found : places) add_place(table, found, now_ms);
	for (const Known &known : functions) {
		const RadarFunction function = {known.file, known.line, known.name, known.called};
		for (int64_t at_ms : {now_ms - known_days * day_ms, now_ms - 3 * minute_ms})
			table.add(known.application, known.path, {{}, {function}}, at_ms);
	}
	database.execute("COMMIT");
}

} // namespace quorbit
