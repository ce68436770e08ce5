// The pages of the shop and of the stock service behind it.
#include "sample/sample_shop.h"

#include "base/clock.h"
#include "sample/sample_action.h"

#include <algorithm>
#include <cmath>

namespace quorbit {

namespace {

constexpr const char *shop = "Shop", *stock = "Stock";
constexpr int64_t traced_us = 100000;

#define SRC "/srv/shop/src/"
constexpr SampleQuery session = {"MySQL", "sessions", "SELECT", "PDO.query", {SRC "Session.php", 31}, "PRIMARY"};
constexpr SampleQuery menu = {"MySQL", "categories", "SELECT", "PDO.query", {SRC "Menu.php", 18}, "parent"};
constexpr SampleQuery offers = {"MySQL", "offers", "SELECT", "PDO.query", {SRC "Offers.php", 22}, "valid_until"};
constexpr SampleQuery products = {"MySQL", "products", "SELECT", "PDO.query", {SRC "Catalogue.php", 19}, "category"};
constexpr SampleQuery stars = {"MySQL", "reviews", "SELECT", "PDO.query", {SRC "Catalogue.php", 34}, nullptr, 61240};
constexpr SampleQuery product = {"MySQL", "products", "SELECT", "PDO.query", {SRC "Product.php", 27}, "PRIMARY"};
constexpr SampleQuery prices = {"MySQL", "prices", "SELECT", "PDO.query", {SRC "Product.php", 44}, "product"};
constexpr SampleQuery related = {"MySQL", "products", "SELECT", "PDO.query", {SRC "Related.php", 16}, nullptr, 18400};
constexpr SampleQuery found = {"MySQL", "products", "SELECT", "PDO.query", {SRC "Search.php", 52}, nullptr, 18400};
constexpr SampleQuery orders = {"MySQL", "orders", "SELECT", "PDO.query", {SRC "Orders.php", 40}, nullptr, 482100};
constexpr SampleQuery cart = {"MySQL", "cart_items", "SELECT", "PDO.query", {SRC "Cart.php", 25}, "cart"};
constexpr SampleQuery new_order = {"MySQL", "orders", "INSERT", "PDO.exec", {SRC "Checkout.php", 88}, "PRIMARY"};
constexpr SampleQuery mails = {"MySQL", "mails", "SELECT", "PDO.query", {"/srv/shop/jobs/send_mails.php", 12}, "state"};
constexpr SampleQuery mail_sent = {
	"MySQL", "mails", "UPDATE", "PDO.exec", {"/srv/shop/jobs/send_mails.php", 29}, "PRIMARY"};
#undef SRC
constexpr SampleQuery level = {"PGSQL", "levels", "SELECT", "pg_query", {"/srv/stock/lib/levels.php", 14}, "item"};
constexpr SampleQuery reserved = {"PGSQL", "levels", "UPDATE", "pg_query", {"/srv/stock/lib/levels.php", 31}, "item"};

struct Visit {
	SampleRandom &random;
	const SampleMoment &moment;
	int64_t number; // of a product, a cart, a customer

	std::string with_number(const char *text) const { return text + std::to_string(number); }
};

// What every page of the shop begins with.
void begin(SampleAction &action, Visit &visit)
{
	action.enter("Session", "open", {"/srv/shop/public/index.php", 12});
	action.cache("GET", visit.random.about(350));
	action.ask(session, visit.with_number("SELECT user_id, data FROM sessions WHERE id = "), visit.random.about(700));
	action.leave();
	action.enter("Menu", "load", {"/srv/shop/public/index.php", 15});
	action.cache("GET", visit.random.about(400));
	if (visit.random.share() < 0.1)
		action.ask(
			menu, "SELECT id, name FROM categories WHERE parent = 0 ORDER BY position", visit.random.about(2400));
	action.leave();
}

void home(SampleAction &action, Visit &visit)
{
	begin(action, visit);
	action.enter("Offers", "today", {"/srv/shop/public/index.php", 21});
	action.ask(
		offers, "SELECT id, title, price FROM offers WHERE valid_until > NOW() LIMIT 12", visit.random.about(4100));
	action.leave();
	action.work(visit.random.about(14000));
}

void product_list(SampleAction &action, Visit &visit)
{
	begin(action, visit);
	action.enter("Catalogue", "rows", {"/srv/shop/public/index.php", 33});
	action.ask(products,
		"SELECT id, name, price FROM products WHERE category = " + std::to_string(visit.number % 40) + " ORDER BY name",
		visit.random.about(3200));
	for (int64_t i = 0; i < 40; i++) {
		action.enter("Catalogue", "stars", {"/srv/shop/src/Catalogue.php", 26});
		action.ask(stars,
			"SELECT avg(stars) FROM reviews WHERE product = " + std::to_string(visit.number % 40 * 40 + i),
			i ? visit.random.about(3400) : 5000 + visit.random.about(2000));
		action.leave();
		action.work(visit.random.about(90));
	}
	action.leave();
	action.enter("Template", "render", {"/srv/shop/public/index.php", 34});
	action.work(visit.random.about(18000));
	action.leave();
}

void product_page(SampleAction &action, Visit &visit)
{
	begin(action, visit);
	action.enter("Product", "load", {"/srv/shop/public/index.php", 41});
	action.ask(product, visit.with_number("SELECT * FROM products WHERE id = "), visit.random.about(1200));
	action.ask(
		prices, visit.with_number("SELECT currency, amount FROM prices WHERE product = "), visit.random.about(1500));
	action.cache("HGETALL", visit.random.about(600));
	action.leave();
	if (visit.moment.new_release) {
		action.enter("Related", "choose", {"/srv/shop/public/index.php", 43});
		action.ask(related,
			"SELECT id, name FROM products WHERE category = " + std::to_string(visit.number % 40) +
				" AND visible = 1 ORDER BY RAND() LIMIT 4",
			visit.random.about(74000));
		action.leave();
	}
	if (visit.moment.new_release && visit.random.share() < 0.04) {
		action.enter("Price", "format", {"/srv/shop/src/Product.php", 61});
		action.work(300);
		action.fail("InvalidArgumentException", "Unknown currency \"XBT\" of product " + std::to_string(visit.number),
			{"/srv/shop/src/Price.php", 41});
		action.leave();
		return;
	}
	action.enter("Template", "render", {"/srv/shop/public/index.php", 47});
	action.work(visit.random.about(21000));
	action.leave();
}

void search(SampleAction &action, Visit &visit)
{
	begin(action, visit);
	action.enter("Search", "find", {"/srv/shop/public/index.php", 55});
	constexpr const char *words[] = {"lamp", "chair", "table", "mirror", "shelf"};
	action.ask(found,
		std::string("SELECT id, name, price FROM products WHERE name LIKE '%") + words[visit.number % 5] +
			"%' LIMIT 50",
		visit.random.about(96000));
	action.leave();
	action.work(visit.random.about(12000));
}

void show_cart(SampleAction &action, Visit &visit)
{
	begin(action, visit);
	action.enter("Cart", "items", {"/srv/shop/public/index.php", 62});
	action.ask(
		cart, visit.with_number("SELECT product, count FROM cart_items WHERE cart = "), visit.random.about(1300));
	action.leave();
	action.work(visit.random.about(9000));
	if (visit.random.share() < 0.02)
		action.fail("RUNTIME_ERROR", "Undefined index: coupon", {"/srv/shop/src/Cart.php", 58});
}

void order_list(SampleAction &action, Visit &visit)
{
	begin(action, visit);
	action.enter("Orders", "of", {"/srv/shop/public/index.php", 70});
	action.ask(orders,
		visit.with_number("SELECT id, total, created FROM orders WHERE customer_id = ") +
			" ORDER BY created DESC LIMIT 20",
		visit.random.about(210000));
	action.leave();
	action.work(visit.random.about(11000));
}

void send_mails(SampleAction &action, Visit &visit)
{
	action.ask(mails, "SELECT id, body FROM mails WHERE state = 'waiting' LIMIT 100", visit.random.about(2500));
	for (int64_t i = 0, most = 2 + visit.number % 6; i < most; i++) {
		action.call("mail.example/v1/send", {"/srv/shop/jobs/send_mails.php", 24}, visit.random.about(82000));
		action.ask(mail_sent, "UPDATE mails SET state = 'sent' WHERE id = " + std::to_string(visit.number + i),
			visit.random.about(1400));
	}
}

// The stock service's half of a checkout.
void reserve(SampleAction &action, SampleRandom &random, int64_t number)
{
	action.enter("", "reserve", {"/srv/stock/reserve.php", 9});
	action.ask(level, "SELECT amount FROM levels WHERE item = " + std::to_string(number), random.about(2600));
	action.ask(
		reserved, "UPDATE levels SET amount = amount - 1 WHERE item = " + std::to_string(number), random.about(6200));
	action.leave();
	action.work(random.about(4200));
}

void stock_level(SampleAction &action, Visit &visit)
{
	action.enter("", "level_of", {"/srv/stock/item.php", 7});
	action.ask(level, visit.with_number("SELECT amount FROM levels WHERE item = "), visit.random.about(1900));
	action.leave();
	action.work(visit.random.about(2400));
}

void checkout(SampleAction &action, Visit &visit, const SampleCallee &callee)
{
	begin(action, visit);
	action.enter("Checkout", "run", {"/srv/shop/public/index.php", 81});
	action.ask(
		cart, visit.with_number("SELECT product, count FROM cart_items WHERE cart = "), visit.random.about(1300));
	action.call("stock.internal/reserve.php", {"/srv/shop/src/Checkout.php", 47},
		callee.duration_us + visit.random.about(1800), &callee);
	action.enter("Payment", "charge", {"/srv/shop/src/Checkout.php", 63});
	if (visit.moment.outage) {
		const std::string told = "Operation timed out after 3000 milliseconds with 0 bytes received";
		action.call("pay.example/v2/charges", {"/srv/shop/src/Payment.php", 29}, 3000000 + visit.random.about(1500),
			nullptr, told);
		action.fail("PaymentUnavailable", "pay.example did not answer: " + told, {"/srv/shop/src/Payment.php", 33});
		return;
	}
	action.call("pay.example/v2/charges", {"/srv/shop/src/Payment.php", 29}, visit.random.about(128000));
	action.leave();
	action.ask(new_order, visit.with_number("INSERT INTO orders (customer_id, total) VALUES (7, ") + ")",
		visit.random.about(3900));
	action.cache("DEL", visit.random.about(300));
	action.leave();
	action.work(visit.random.about(9000));
}

} // namespace

struct SampleShop::Page {
	const char *application, *name, *path, *script;
	double a_minute; // at the busiest time
	void (*run)(SampleAction &action, Visit &visit);
};

constexpr const char *front = "/srv/shop/public/index.php";

const SampleShop::Page SampleShop::pages[] = {
	{shop, "WebAction/shop%2Fhome", "/", front, 3.2, home},
	{shop, "WebAction/shop%2Fproducts", "/products", front, 1.6, product_list},
	{shop, "WebAction/shop%2Fproduct", "/product/", front, 3.6, product_page},
	{shop, "WebAction/shop%2Fsearch", "/search", front, 0.9, search},
	{shop, "WebAction/shop%2Fcart", "/cart", front, 1.2, show_cart},
	{shop, "WebAction/shop%2Forders", "/account/orders", front, 0.5, order_list},
	{shop, "WebAction/shop%2Fcheckout", "/checkout", front, 0.7, nullptr}, // of two applications
	{shop, "BackgroundAction/Script/srv/shop/jobs/send_mails.php", "", "/srv/shop/jobs/send_mails.php", 0.25,
		send_mails},
	{stock, "WebAction/stock%2Fitem", "/item/", "/srv/stock/item.php", 1.4, stock_level},
};

uint64_t SampleRandom::next()
{
	// SplitMix64 (Steele, Lea, Flood: "Fast splittable pseudorandom number generators", OOPSLA 2014)
	uint64_t mixed = state_ += 0x9E3779B97F4A7C15u;
	mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
	mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
	return mixed ^ (mixed >> 31);
}

double SampleRandom::share()
{
	return static_cast<double>(next() >> 11) / 9007199254740992.0;
}

int64_t SampleRandom::about(double typical)
{
	const double bell = share() + share() + share() + share() - 2; // about normal, of a deviation of 0.58
	const double tail = share() < 0.03 ? 1 + 3 * share() : 1;
	return static_cast<int64_t>(typical * std::exp(bell * 0.5) * tail);
}

std::string SampleShop::next_id()
{
	return "sample-" + std::to_string(++ids_);
}

std::vector<SamplePacket> SampleShop::minute(const SampleMoment &moment)
{
	packets_.clear();
	for (const Page &page : pages) {
		const double expected = page.a_minute * (*page.path ? 0.25 + 0.75 * moment.rush : 1);
		const auto whole = static_cast<int64_t>(expected);
		const int64_t count = whole + (random_.share() < expected - static_cast<double>(whole));
		for (int64_t i = 0; i < count; i++) {
			const int64_t at_ms = moment.at_ms + random_.below(minute_ms), process = 2100 + random_.below(6);
			Visit visit{random_, moment, 1000 + random_.below(8000)};
			const bool numbered = *page.path && page.path[1] && std::string(page.path).ends_with('/');
			SampleAction action(
				page.application, page.name, page.path + (numbered ? visit.with_number("") : ""), page.script);
			if (*page.path) action.wait_before(random_.about(300 + 9000 * std::pow(moment.rush, 6)));
			action.identify(next_id());
			if (page.run) {
				page.run(action, visit);
			} else {
				const std::string transaction = next_id(), callee_id = next_id();
				SampleAction half(stock, "WebAction/stock%2Freserve", "/reserve.php", "/srv/stock/reserve.php");
				half.identify(callee_id, transaction);
				reserve(half, random_, visit.number);
				action.identify(next_id(), transaction);
				const SampleCallee callee{
					"2|stock", "WebAction/stock%2Freserve", callee_id, transaction, half.duration_us()};
				packets_.push_back({at_ms - 200, 2200 + random_.below(3), half.packet(traced_us)});
				checkout(action, visit, callee);
			}
			packets_.push_back({at_ms, *page.path ? process : 2300 + at_ms % 700, action.packet(traced_us)});
		}
	}
	std::sort(packets_.begin(), packets_.end(),
		[](const SamplePacket &a, const SamplePacket &b) { return a.at_ms < b.at_ms; });
	return std::move(packets_);
}

} // namespace quorbit
