<?php
/* A cluster. */
$c = new RedisCluster(null, array("127.0.0.1:$PORT"));
$c->set("k", "v");
echo $c->get("k"), $c->_prefix("");
