<?php
/* The called application. */
usleep(4000);
echo 'item';
