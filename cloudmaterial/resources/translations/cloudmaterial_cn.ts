<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN">
<context>
    <name>cloudmaterial</name>
    <message>
        <source>CloudMaterial</source>
        <translation>云素材</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>登录</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>退出登录</translation>
    </message>
</context>
</TS>
