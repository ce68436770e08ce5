<?php
// "^" is where the script stands
define('PAGE', '<html><head><title>t</title></head><body>b</body></html>');
define('NO_TAGS', '<html><head><script src=x>var w="<title>a</title></head>"; </scripts </script ><STYLE>a { b: "</title>" }</style>' .
    '<!-- </title> - -- </head> --><!--><!-- --- </title>---><scripts><textarea></title></textarea>');
# --- as one piece => <title>t</title>^</head>
echo PAGE;
# --- in pieces => <head>^</head>
foreach (array('<html>', '<head>', '</head>', '</html>') as $piece) {
    echo $piece;
    flush();
}
# --- letters and blanks => <hEAD>^</Head>
echo "<HTML\tLANG=en><hEAD></Head>";
# --- without html tag => nothing
echo '<htmlx><head></head>';
# --- broken tags around whole ones => </</title>^</head>
echo '<<html></</title></head>';
# --- twice => <title>t</title>^</head>
echo PAGE, PAGE;
# --- in a buffer => <title>t</title>^</head>
ob_start();
echo PAGE;
# --- in nested buffers => <head>^</head>
ob_start();
echo '<html>';
ob_start();
ob_start();
echo '<head></head>';
# --- in a buffer that is flushed => <head>^</head>
ob_start();
echo '<html>';
ob_flush();
echo '<head>';
ob_flush();
echo '</head>';
ob_end_flush();
# --- in a buffer that is read => <title>t</title>^</head>
ob_start();
echo PAGE;
$page = ob_get_contents();
ob_end_clean();
echo $page;
# --- in a buffer thrown away => nothing
ob_start();
echo PAGE;
ob_end_clean();
echo 'no page';
# --- in a buffer of small chunks => nothing
ob_start(null, 5);
foreach (str_split(PAGE, 3) as $piece) echo $piece;
# --- in a buffer that grows while one is read => <head>^</head>
ob_start();
echo '<html><head>';
ob_get_contents();
ob_get_contents();
echo '</head>';
# --- a callback changes it => </title><meta>^</head>
ob_start(function ($page) { return str_replace('</title>', '</title><meta>', $page); });
echo PAGE;
# --- a callback looks into its buffer, which is full => <title>t</title>^</head>
ob_start(function ($page) { ob_get_contents(); return $page; }, 10);
echo PAGE;
# --- a callback removes the head => nothing
ob_start(function ($page) { return 'gone'; });
echo PAGE;
# --- a callback writes the head => <title>t</title>^</head>
ob_start(function ($page) { return PAGE; });
echo 'x';
# --- a callback fails => <title>t</title>^</head>
ob_start(function ($page) { return false; });
echo PAGE;
# --- exit in a function, buffered => <title>t</title>^</head>
function leave() { ob_start(); echo '<html><head><title>t</title>'; exit('</head>'); }
leave();
# --- a fatal error => <title>t</title>^</head>
ob_start();
echo PAGE;
absent();
# --- memory exhausted => <title>t</title>^</head>
ob_start();
echo PAGE;
str_repeat('x', 64 << 20);
# --- written at shutdown => <title>t</title>^</head>
register_shutdown_function(function () { echo PAGE; });
# --- written when the session ends, behind the report => nothing
function yes() { return true; }
function none() { return ''; }
function write() { echo PAGE; return true; }
session_set_save_handler('yes', 'yes', 'none', 'write', 'yes', 'yes');
session_id('one');
session_start();
# --- from a file => <title>t</title>^</head>
file_put_contents('p.html', PAGE);
readfile('p.html');
# --- from phpinfo => </title>^
phpinfo(INFO_LICENSE);

# --- tags in scripts, styles, text areas and comments => <textarea></title></textarea><title>t</title>^
echo NO_TAGS, '<title>t</title>';
# --- a script that does not end => nothing
echo '<html><script>', PAGE;
# --- tags in the title => how to write <script> and <!--</title>^
echo '<html><title>how to write <script> and <!--</title>';
# --- tags in a script in nested buffers, read meanwhile => </script>^</head>
ob_start();
echo '<html><script>';
ob_start();
echo '</title>';
ob_get_contents();
ob_end_flush();
ob_flush();
echo '</title></script></head>';
# --- a file to be saved => nothing
header('content-disposition:  Attachment; filename="page.html"');
echo PAGE;
# --- a file to be shown => <title>t</title>^</head>
header('Content-Disposition: inline; filename="attachment"');
echo PAGE;
# --- a page with a digest, buffered => nothing
ob_start();
header('Digest: SHA-256=X48E9qOokqqrvdts8nOJRJN3OWDUoyWxBf7kbu9DBPE=');
echo PAGE;

# --- among the first bytes, in two pieces; headers and their line ends are none of them => ^</head>
// ini: memory_limit = 16M
for ($i = 0; $i < 50; $i++) header("X-$i: $i");
echo str_pad('<html>', 65535), '</head>';
# --- behind the bytes that are searched, in two pieces => nothing
// ini: memory_limit = 16M
echo str_pad('<html>', 65536), '</head>';
# --- a tag that ends where the search does => ^</head>
// ini: memory_limit = 16M
echo str_pad('<html>', 65529) . '</head>';
# --- a tag that ends behind it => nothing
// ini: memory_limit = 16M
echo str_pad('<html>', 65530) . '</head>';
# --- a tag that ends where the search does, buffered => ^</head>
// ini: memory_limit = 16M
ob_start();
echo str_pad('<html>', 65529), '</head>';
# --- a tag that ends behind it, buffered => nothing
// ini: memory_limit = 16M
ob_start();
echo str_pad('<html>', 65530), '</head>';
# --- what a buffer held counts as well => nothing
// ini: memory_limit = 16M
ob_start();
echo str_pad('<html>', 40000);
ob_get_contents();
ob_end_flush();
echo '</head>';
# --- byte for byte => </title>^x
echo '<html>';
for ($i = 0; $i < 65000; $i++) echo 'x';
echo '</title>';
for ($i = 0; $i < 65000; $i++) echo 'x';
# --- a hundred megabytes of beginnings => nothing
// ini: memory_limit = 16M
echo '<html>';
for ($i = 0; $i < 100; $i++) echo str_repeat('</', 1 << 19);
echo '</head>';

# --- gzip handler => <title>t</title>^</head>
ob_start('ob_gzhandler');
echo PAGE;
# --- gzip handler below a buffer => <html>^</head>
ob_start('ob_gzhandler');
ob_start();
echo '<html>';
ob_end_flush();
echo '</head>';
# --- compressed by setting => <title>t</title>^</head>
// ini: zlib.output_compression = 1
echo PAGE;
# --- compressed by setting, in steps => nothing
// ini: zlib.output_compression = 4096
echo '<html><head>', str_repeat('x', 9000), '</head>';
# --- stored by setting => nothing
// ini: zlib.output_compression = 4096
// ini: zlib.output_compression_level = 0
echo PAGE, str_repeat('x', 9000);
# --- compressed by a callback => <title>t</title>^</head>
ob_start(function ($page) { header('Content-Encoding: gzip'); return gzencode($page); });
echo PAGE;
# --- stored by a callback => nothing
ob_start(function ($page) { header('Content-Encoding: gzip'); return gzencode($page, 0); });
echo PAGE;
ob_start();
# --- stored by the script => nothing
header('Content-Encoding: gzip');
echo gzencode(PAGE, 0);
# --- stored by the script, buffered => nothing
ob_start();
header('Content-Encoding: gzip');
echo gzencode(PAGE, 0);
# --- another type by setting => nothing
// ini: default_mimetype = application/json
echo PAGE;
# --- another type by setting, HTML by header => <title>t</title>^</head>
// ini: default_mimetype = text/plain
header('Content-Type: text/html');
echo PAGE;
# --- type in other letters => <title>t</title>^</head>
header('CONTENT-TYPE: Text/HTML');
echo PAGE;
# --- JSON => nothing
header('Content-Type: application/json');
echo PAGE;
# --- type by a header callback => nothing
header_register_callback(function () { header('Content-Type: text/plain'); });
echo PAGE;
# --- length of its own => nothing
header('Content-Length: ' . strlen(PAGE));
echo PAGE;
# --- length of its own, buffered => nothing
ob_start();
echo PAGE;
header('Content-Length: ' . ob_get_length());
ob_end_flush();
# --- own framing => nothing
header('Transfer-Encoding: chunked');
printf('%x%s', strlen(PAGE), PAGE);
# --- redirect by status line => nothing
header('HTTP/1.1 302 Found');
header('Location: /x');
echo PAGE;
# --- a header like a page => nothing
header('X-Note: ' . PAGE);
echo 'text';
# --- UTF-16 => nothing
echo mb_convert_encoding(PAGE, 'UTF-16');
