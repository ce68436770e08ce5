<?php
/* A Thrift client in the binary protocol, under the class names of the real library, with one generated service. */
namespace Thrift\Transport {
    class TSocket {
        protected $host, $port, $stream;

        function __construct($host = 'localhost', $port = 9090) { list($this->host, $this->port) = array($host, $port); }
        function open() {
            $this->stream = @stream_socket_client("tcp://$this->host:$this->port", $code, $text, 5);
            if (!$this->stream) throw new TTransportException("TSocket: Could not connect to $this->host ($text)");
        }
        function write($bytes) { fwrite($this->stream, $bytes); }
        function flush() { }
        function readAll($length) {
            $bytes = stream_get_contents($this->stream, $length);
            if (strlen($bytes) < $length) throw new TTransportException("TSocket: Could not read $length bytes");
            return $bytes;
        }
    }

    /* Collects what is written and posts it on flush. */
    class THttpClient extends TSocket {
        private $out = '', $in = '', $path;

        function __construct($host, $port = 80, $path = '') { parent::__construct($host, $port); $this->path = $path; }
        function open() { }
        function write($bytes) { $this->out .= $bytes; }
        function flush() {
            $options = array('http' => array('method' => 'POST', 'content' => $this->out));
            $this->in = file_get_contents("http://$this->host:$this->port$this->path", false, stream_context_create($options));
        }
        function readAll($length) {
            $bytes = substr($this->in, 0, $length);
            $this->in = substr($this->in, $length);
            return $bytes;
        }
    }

    class TTransportException extends \Exception { }
}

namespace Thrift\Protocol {
    abstract class TProtocol {
        protected $trans;

        function __construct($transport) { $this->trans = $transport; }
        function getTransport() { return $this->trans; }
        function skip($type) {
            if ($type == 11) return $this->readString($text);
            if ($type == 8) return $this->readI32($number);
            throw new \Exception("unknown type $type");
        }
    }

    class TBinaryProtocol extends TProtocol {
        function writeMessageBegin($name, $type, $sequence) {
            $this->trans->write(pack('N', 0x80010000 | $type));
            $this->writeString($name);
            $this->writeI32($sequence);
        }
        function writeMessageEnd() { }
        function writeFieldBegin($name, $type, $id) { $this->trans->write(pack('cn', $type, $id)); }
        function writeFieldEnd() { }
        function writeFieldStop() { $this->trans->write(pack('c', 0)); }
        function writeI32($number) { $this->trans->write(pack('N', $number)); }
        function writeString($text) { $this->trans->write(pack('N', strlen($text)) . $text); }
        function readMessageBegin(&$name, &$type, &$sequence) {
            $this->readI32($version);
            $this->readString($name);
            $this->readI32($sequence);
            $type = $version & 0xff;
        }
        function readFieldBegin(&$name, &$type, &$id) {
            $type = ord($this->trans->readAll(1));
            if ($type) list(, $id) = unpack('n', $this->trans->readAll(2));
        }
        function readI32(&$number) { list(, $number) = unpack('N', $this->trans->readAll(4)); }
        function readString(&$text) { $this->readI32($length); $text = $length ? $this->trans->readAll($length) : ''; }
    }
}

namespace Shop\Calc {
    class CalcClient {
        private $protocol;

        function __construct($protocol) { $this->protocol = $protocol; }

        function add($a, $b) {
            $this->send_add($a, $b);
            return $this->recv_add();
        }

        function send_add($a, $b) {
            $out = $this->protocol;
            $out->writeMessageBegin('add', 1, 7);
            foreach (array(1 => $a, 2 => $b) as $id => $number) {
                $out->writeFieldBegin('n', 8, $id);
                $out->writeI32($number);
                $out->writeFieldEnd();
            }
            $out->writeFieldStop();
            $out->writeMessageEnd();
            $out->getTransport()->flush();
        }

        function recv_add() {
            $in = $this->protocol;
            $in->readMessageBegin($name, $type, $sequence);
            for ($result = null;;) {
                $in->readFieldBegin($name, $type, $id);
                if ($type == 0) return $result;
                if ($id == 0) $in->readI32($result);
                else $in->skip($type);
            }
        }
    }
}
