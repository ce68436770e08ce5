<?php
/* One request of the thread sanitizer's host: a page that crosses every recorder. Its case number picks what differs. */
$case = (int)$_GET['case'];

class Shop
{
    public function __call($name, $arguments)
    {
        return $this->page($arguments[0]);
    }

    private function page($id)
    {
        usleep(200);
        return "<p>$id</p>";
    }
}

function items($count)
{
    for ($i = 0; $i < $count; $i++) { yield strtoupper("item $i"); }
}

function deep($levels)
{
    usleep(100);
    if ($levels) { return deep($levels - 1); }
    throw new LogicException('deep');
}

function database()
{
    $db = new PDO('sqlite::memory:');
    $db->exec('CREATE TABLE item (id INTEGER, name TEXT)');
    $insert = $db->prepare('INSERT INTO item VALUES (?, ?)');
    for ($i = 0; $i < 5; $i++) { $insert->execute(array($i, "o'clock")); }
    foreach ($db->query('SELECT * FROM item WHERE id > 2') as $row) { echo $row['name']; }
    @$db->query('SELECT broken FROM nothing');
}

function stores()
{
    $memcached = new Memcached;
    $memcached->get('slow:1');
    $memcached->set('key', 'value');
    $mongo = new MongoCollection('items');
    $mongo->insert(array());
    @$mongo->find('fail');
}

function call($port)
{
    @file_get_contents("http://127.0.0.1:$port/there");
    $curl = curl_init("http://127.0.0.1:$port/here?secret=1");
    curl_setopt($curl, CURLOPT_RETURNTRANSFER, true);
    curl_exec($curl);
    curl_setopt($curl, CURLOPT_URL, 'http://127.0.0.1:1/nobody');
    curl_exec($curl);
    curl_close($curl);
}

function errors($case)
{
    switch ($case % 6) {
        case 0: trigger_error("case $case", E_USER_WARNING); break;
        case 1: echo $undefined; break;
        case 2: header('HTTP/1.1 503 Away'); break;
        case 3: exit(3);
        case 4: throw new RuntimeException("case $case");
        case 5: no_such_function();
    }
}

echo '<html><head><title>', $case, '</title></head><body>';
$shop = new Shop;
echo $shop->show($case);
foreach (items(3) as $item) { echo $item; }
echo array_sum(array_map(function ($x) { return $x + 1; }, array(1, 2)));
try {
    deep(3);
} catch (LogicException $e) { echo get_class($e); }
if ($case % 2) { database(); }
if ($case % 3) { stores(); }
if ($case % 4 === 0) { call(getenv('PEER_PORT')); }
if ($case % 5 === 0) {
    ini_set('zqs.action_tracer.action_threshold', $case % 100);
    ini_set('zqs.action_tracer.slow_sql', $case % 2);
}
ob_start();
echo '</body></html>';
if ($case % 7) { ob_end_flush(); }
if ($case % 3 === 0) { errors($case); }
