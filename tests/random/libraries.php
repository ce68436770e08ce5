<?php
/* Classes and functions by the names of known libraries, which the agent looks at, and whose methods it calls: those do
 * their worst when it does. They must not print or count anything then, since nobody calls them without the agent. */
declare(ticks = 3);

namespace {
    /* Releases objects in the reverse order of their making, so that those made afterwards get the numbers they would get. */
    function do_worst($what) {
        set_error_handler('strtoupper');
        trigger_error($what);
        set_exception_handler('strlen');
        restore_exception_handler();
        $nobody = new Nobody;
        $nobody = null;
        echo @$undefined[$what];
        try {
            throw new Worse($what);
        } catch (Oops $e) { $e = null; }
        throw new Oops($what);
    }

    /* Its destructor throws, but catches that. */
    class Nobody {
        function __destruct() {
            try {
                throw new Oops('nobody');
            } catch (Oops $e) {}
        }
    }

    class Zend_Application { function __construct() { } }
    class Zend_Http_Client {
        function getUri($as_text = false) { return do_worst('getUri'); }
        function request($what) {
            if ($what === 'x') throw new Worse('request');
            return $what === 'ab' ? file_get_contents(peer('/ok')) : new Mortal("answer to $what");
        }
    }
    class Zend_Controller_Action {
        function __call($name, $arguments) { return do_worst($name); }
        function dispatch($action) { if ($action === 'x') throw new Oops('dispatch'); return new Mortal('view'); }
    }

    function wp_initial_constants() { }
    class WP_Http {
        function request($url, $args = array()) { if ($url === 'x') throw new Oops('request'); return flat($args); }
    }

    function drupal_bootstrap() { }
    function drupal_http_request($url) { if ($url === 'x') throw new Oops('drupal'); return strrev($url); }
    function drupal_get_normal_path($path) { return array(new Mortal($path)); }

    class Snoopy {
        function _httprequest($url, $fp, $uri, $method = 'GET') { return spent() ? 0 : strlen($uri); }
    }
    class soap_transport_http {
        public $url = 'http://shop.test/soap?x=1';
        public $incoming_headers = array('X-Vantor-Tx-Data' => '{');
        function setHeader($name, $value) { return do_worst('setHeader'); }
        function send($data, $timeout = 0) { if ($data === 'x') throw new Oops('send'); return 'sent ' . strlen($data); }
    }

    /* A database whose errors are worse. */
    class Db extends PDO {
        function errorInfo() { return do_worst('errorInfo'); }
        function getAttribute($name) { return do_worst('getAttribute'); }
        function query($text) { if ($text === 'x') throw new Oops('query'); return parent::query($text); }
    }

    class RemoteClient {
        private $protocol;
        function __construct() { $this->protocol = new Thrift\Protocol\TBinaryProtocol; }
        function add($what) {
            $this->protocol->writeMessageBegin('add', 1, 0);
            $this->protocol->writeFieldStop();
            if ($what === 'x') throw new Worse('add');
            $this->protocol->skip(11);
            return $this->protocol->readString($text) . $text;
        }
    }
}

namespace Thrift\Protocol {
    class TProtocol { function skip($type) { return $type; } }
    class TBinaryProtocol extends TProtocol {
        private $stops = 0;
        function writeMessageBegin($name, $type, $sequence) { return 1; }
        function writeFieldStop() { if ($this->stops++ % 2) throw new \Oops('stop'); return 1; }
        function writeFieldBegin($name, $type, $id) { return 1; }
        function writeString($text) { return do_worst('writeString'); }
        function readString(&$text) { $text = '{"VantorTxData":{'; return 17; }
    }
}

namespace yii\base {
    class Application { function __construct() { } }
    class Module { function runAction($route, $params = array()) { if ($route === 'x') throw new \Oops('run'); return new \Mortal($route); } }
}

namespace yii\redis {
    class Connection { function executeCommand($name, $params = array()) { if ($name === 'x') throw new \Oops('redis'); return $name; } }
}
